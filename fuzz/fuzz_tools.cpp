// The texts that the tools read: what a person types, files of theirs, and what the daemon and the
// bus say. The first letter of an input chooses the reader; the rest is its text, or several
// between NULs. A refusal with a reason is as good as a result.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/Fuzzing.h"
#include "message-node/CannedAnswers.h"
#include "message-node/Scenario.h"
#include "support/BusRequest.h"
#include "support/CommandFailure.h"
#include "support/HexText.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "valtor-bus/BusDefaults.h"
#include "valtor-bus/ConnectionPointTable.h"
#include "valtor-bus/DaemonStatus.h"
#include "valtor-bus/MessageFormat.h"
#include "valtor-bus/MessageText.h"
#include "valtor-bus/NumberRanges.h"
#include "valtor-bus/Recording.h"

namespace valtor::fuzz {

namespace {

using Parts = std::vector<std::string>;

constexpr WallTime kTime{std::chrono::seconds(1'700'000'000)};

// Whether a terminal shows it as it is: one line of valid UTF-8 without controls.
bool isHarmless(const std::string& text) { return printable(text) == text; }

// --- What a person types, and files --------------------------------------------------------------

void readRecording(const Parts& parts) {
  const std::string path = scratchFolder() + "/recording";
  writeFile(path, parts[0]);
  std::vector<RecordedMessage> messages;
  accepts([&] {
    RecordingReader reader(path);
    while (std::optional<RecordedMessage> message = reader.next()) {
      messages.push_back(std::move(*message));
    }
  });
  RecordingWriter writer(path, RecordingWriter::Existing::Overwrite);
  for (const RecordedMessage& message : messages) {
    writer.add(message);
  }
  RecordingReader reader(path);
  for (const RecordedMessage& message : messages) {
    const std::optional<RecordedMessage> again = reader.next();
    require(again && again->payload == message.payload && again->offset == message.offset,
            "a message that was recorded is read again");
  }
  require(!reader.next(), "and nothing else");
}

void readNumbers(const Parts& parts) {
  std::vector<int32_t> numbers;
  if (accepts([&] { numbers = parseNumberSet("levels", parts[0]); })) {
    require(parseNumbers("levels", formatNumbers(numbers)) == numbers,
            "numbers that were written are read again");
  }
}

void readDefaults(const Parts& parts) {
  writeFile(scratchFolder() + "/valtor-bus.conf", parts[0]);
  setenv("XDG_CONFIG_HOME", scratchFolder().c_str(), 1);
  for (const char* name : {"host", "port"}) {
    accepts([&] {
      if (const std::optional<BusDefault> found = busDefault(name)) {
        require(found->text.find('\n') == std::string::npos, "a default is one line");
      }
    });
  }
}

void readFormat(const Parts& parts) {
  accepts([&] {
    const MessageFormat format(parts[0]);
    const PellInternalMessage message = received(parts.back());
    format.apply(message, kTime);
  });
}

void readScenario(const Parts& parts) {
  accepts([&] { const Scenario scenario(parts[0]); });
  accepts([&] {
    const CannedAnswers answers(parts[0]);
    const PellInternalMessage request = received(parts.back());
    if (const auto answer = answers.answerTo(request)) {
      require(answer->getUniqueId() == request.getUniqueId(), "an answer is about its request");
    }
  });
}

void makeBusRequest(const Parts& parts) {
  accepts([&] {
    const BusRequest request = makeRequest(MessageKind::SET, parts.back(), parts[0], 101);
    const PellInternalMessage message = received(payloadOf(request, 7));
    require(message.isDecoded() && message.getPath() == request.path &&
                message.getUniqueId() == request.identifier.c_str() &&
                message.getDestConnID() == 101,
            "a request is understood");
    require(compactJSON(bodyTextOf(message)) == request.body, "with its body");
  });
}

// --- Texts ---------------------------------------------------------------------------------------

void handleJSON(const Parts& parts) {
  const std::string& text = parts[0];
  const std::optional<std::string> compact = compactJSON(text);
  if (!compact) {
    require(isHarmless(faultInJSON(text)), "a fault is told in one line");
    return;
  }
  require(compactJSON(*compact) == compact, "what is compact stays as it is");
  require(compactJSON(formattedJSON(*compact)) == compactJSON(escapedControls(*compact)),
          "what is shown to people is the same");
  if (compact->front() == '{') {
    const JSONMembers members = membersOfJSON(*compact);
    require(objectOfJSON(members) == *compact, "an object is its members");
    for (const auto& [name, value] : members) {
      require(compactJSON(value) == value && compactJSON(name) == name, "which are JSON");
    }
  }
  require(compactJSON(quotedJSON(text)).has_value(), "a quoted text is JSON");
  textOfJSON(*compact);
}

std::string withoutOthersThanASCII(std::string text) {
  std::erase_if(text, [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
  return text;
}

void handleBytes(const Parts& parts) {
  const std::string& text = parts[0];
  require(bytesOfHex(hexText(text)) == text, "digits stand for their bytes");
  bytesOfHex(text);
  const std::string clean = withoutBrokenUtf8(text);
  require(withoutBrokenUtf8(clean) == clean, "what is mended stays as it is");
  require(withoutOthersThanASCII(clean) == withoutOthersThanASCII(text),
          "what stands beside a broken character stays");
  require(textOfJSON(quotedJSON(text)) == clean, "a JSON string stands for its text");
  const std::string shown = printable(text);
  require(printable(shown) == shown, "what is printable stays as it is");
  require(std::none_of(shown.begin(), shown.end(),
                       [](char byte) {
                         return (static_cast<unsigned char>(byte) < 0x20) || byte == '\x7f';
                       }),
          "no control reaches the terminal");
}

// --- What comes from the bus and from the daemon -------------------------------------------------

void showMessage(const Parts& parts) {
  const PellInternalMessage message = received(parts[0]);
  if (!message.isDecoded()) {
    return;
  }
  require(isHarmless(messageLine(message, kTime, false, 0)), "a message is one harmless line");
  messageLine(message, kTime, true, 20);
  const std::string json = messageJSON(message, kTime);
  require(compactJSON(json).has_value() && isHarmless(json), "and one harmless JSON object");
  require(isHarmless(statusOf(message)), "a status is harmless");
  require(compactJSON(bodyOf(message)) == bodyOf(message), "its body is JSON");
  const std::string param = paramOf(message);
  require(param.empty() || compactJSON(param) == param, "and so is its value");
}

void keepTable(const Parts& parts) {
  ConnectionPointTable table;
  for (const std::string& part : parts) {
    const PellInternalMessage message = received(part);
    if (!message.isDecoded()) {
      table.takeTimes(DaemonStatus(part));
    } else if (message.getKind() == MessageKind::NOT) {
      table.takeNotification(message, kTime);
    } else {
      table.beginListing();
      table.takeAnswer(message);
      table.endListing();
    }
  }
  const std::string text = table.text(false);
  require(std::count(text.begin(), text.end(), '\n') ==
              static_cast<std::ptrdiff_t>(table.rows().size()) + 1,
          "a table has a line for each connection point");
  const std::string json = table.json();
  require(compactJSON(json) == json, "and is JSON");
}

void readStatus(const Parts& parts) {
  const DaemonStatus status(parts[0]);
  require(status.isThere() ==
              (compactJSON(withoutBrokenUtf8(parts[0])).value_or("").substr(0, 1) == "{"),
          "only an object is a status");
  require(isHarmless(status.role) && isHarmless(status.lastLoop), "its texts are harmless");
  for (const DaemonStatus::Router& router : status.routers) {
    require(isHarmless(router.name) && isHarmless(router.place()), "and those of the routers");
    if (router.since) {
      sinceText(wallTime(*router.since));
    }
  }
}

constexpr std::array<void (*)(const Parts&), 11> kReaders = {
    readRecording, readNumbers, readDefaults, readFormat, readScenario, makeBusRequest,
    handleJSON,    handleBytes, showMessage,  keepTable,  readStatus,
};

}  // namespace

// Ranges of a few digits stand for up to kMostNumbers numbers.
const MemoryLimit kMemoryLimit{100, 400'000 + 6 * kMostNumbers * sizeof(int32_t)};

void examine(Input input) {
  const auto reader = kReaders[input.choose(kReaders.size())];
  reader(input.parts());
}

}  // namespace valtor::fuzz
