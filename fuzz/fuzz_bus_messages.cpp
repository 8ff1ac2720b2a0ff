// Feeds the stream parser with arbitrary bytes in chunks and uses every message that comes out. The
// first letter of an input chooses whether the rest is the stream itself or one payload, which then
// gets its frame here; the next four choose the sizes of the chunks, in turn, the last how much of
// the stream a link before this one had brought when it ended.

#include <algorithm>
#include <array>
#include <exception>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "app/util/JSONValues.h"
#include "bus/message/PellInternalStreamParser.h"
#include "bus/message/RSPMessage.h"
#include "fuzz/Fuzzing.h"

namespace valtor::fuzz {

namespace {

using Chunks = std::array<std::size_t, 4>;  // bytes

// The second of two links brings the stream, the first had brought some of it.
std::vector<PellInternalMessage> parsed(const std::string& stream, const Chunks& chunks,
                                        std::size_t before = 0) {
  std::vector<PellInternalMessage> all;
  PellInternalStreamParser parser;
  parser.setMessageCallback([](std::vector<PellInternalMessage>) {});
  parser.parse(stream.data(), std::min(before, stream.size()));
  parser.reset();
  parser.setMessageCallback([&all](std::vector<PellInternalMessage> messages) {
    require(!messages.empty(), "a callback has messages");
    std::move(messages.begin(), messages.end(), std::back_inserter(all));
  });
  std::size_t turn = 0;
  for (std::size_t done = 0; done < stream.size();) {
    const std::size_t size = std::min(chunks[turn++ % chunks.size()], stream.size() - done);
    parser.parse(stream.data() + done, size);
    done += size;
  }
  return all;
}

std::size_t valuesIn(const cJSON* item) {
  std::size_t count = item->string != nullptr ? 2 : 1;
  const cJSON* child = nullptr;
  cJSON_ArrayForEach(child, item) { count += valuesIn(child); }
  return count;
}

// What a tree costs is foreseen from its text.
void foresee(const PellInternalMessage& message) {
  const std::string text = message.bodyText();
  const JSONPtr tree(cJSON_Parse(text.c_str()));
  if (tree != nullptr) {
    const std::size_t count = valuesIn(tree.get());
    require(!holdsMoreValues(text, count) && holdsMoreValues(text, count - 1),
            "the values of a text are counted before it is parsed");
  }
}

// Whoever only looks at a message leaves its bytes alone.
void look(const PellInternalMessage& message) {
  const std::string before = message.encode();
  // A blank in front makes it another spelling than the one that is read without a tree.
  PellInternalHeader header;
  require(HeaderLine::decode(" " + std::string(message.receivedLine()), header) &&
              header.kind == message.getKind() && header.path == message.getPath() &&
              header.sourceConnID == message.header.sourceConnID &&
              header.sourceName == message.header.sourceName &&
              header.destConnID == message.header.destConnID &&
              header.destName == message.header.destName,
          "both ways to read a header line agree");
  require(message.isDecoded() && message.getDestConnID() >= 0, "only good headers pass");
  foresee(message);
  message.getSequence();
  elementsOfPath(message.getPath());
  require(RSPMessage(message, 404).header.destConnID == message.header.sourceConnID,
          "a response goes back");
  try {
    readResponseSummary(message);
  } catch (const std::exception&) {
    // Most messages are no responses.
  }
  require(message.encode() == before, "looking changes nothing");
}

// What is sent on is understood as the same message again, unless its header line was cut.
void sendOn(const PellInternalMessage& message) {
  const std::string line = message.headerLine();
  if (line.back() != '\n') {
    return;
  }
  const std::string payload = message.encode();
  const SharedFrame framed = frameOf(message, message.header.sourceConnID);
  const std::string stream(framed->data(), framed->size());
  require(stream == frame(payload), "every way of framing gives the same bytes");
  const std::vector<PellInternalMessage> again = parsed(stream, {7, 7, 7, 7});
  require(again.size() == 1, "an encoded message is one message");
  require(again[0].getKind() == message.getKind() && again[0].getPath() == message.getPath() &&
              again[0].header.sourceConnID == message.header.sourceConnID &&
              again[0].getDestConnID() == message.getDestConnID(),
          "the header survives");
  require(again[0].isScheduled() || message.isScheduled() || again[0].encode() == payload,
          "the payload survives");
}

}  // namespace

// A length of a few digits makes the parser take the longest payload's room.
const MemoryLimit kMemoryLimit{100, PellInternalStreamParser::kMaxPayload + 300'000};

void examine(Input input) {
  const bool isStream = input.choose(2) != 0;
  Chunks chunks{};
  for (std::size_t& chunk : chunks) {
    chunk = 1 + input.choose(128);
  }
  const std::size_t before = input.choose(128);
  const std::string stream = isStream ? input.text() : frame(input.text());
  const std::size_t all = std::max<std::size_t>(stream.size(), 1);
  const std::vector<PellInternalMessage> whole = parsed(stream, {all, all, all, all});
  std::vector<PellInternalMessage> cut = parsed(stream, chunks, before);
  require(whole.size() == cut.size(), "chunks do not matter");
  for (std::size_t i = 0; i < cut.size(); ++i) {
    require(whole[i].encode() == cut[i].encode() || whole[i].isScheduled() != cut[i].isScheduled(),
            "chunks do not matter to a message");
    look(cut[i]);
    sendOn(cut[i]);
    cut[i].splitPath();
    PellInternalMessage moved = std::move(cut[i]);
    moved.getBody();
    moved.encode();
  }
}

}  // namespace valtor::fuzz
