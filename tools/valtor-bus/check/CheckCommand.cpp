#include "valtor-bus/CheckCommand.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <syslog.h>
#include <utility>
#include <vector>

#include "app/util/Files.h"
#include "app/util/OwnedJSON.h"
#include "app/util/Paths.h"
#include "bus/IPellInternalClient.h"
#include "connections/ConnectionPointSet.h"
#include "peers/RemoteValtorConnectionPointManager.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/LogSink.h"
#include "support/PrintableText.h"

namespace valtor {
namespace {

// Text of this size may need some hundred times as much memory.
constexpr std::uintmax_t kMostBytes = 8388608;
constexpr const char* kListName = "connectionPoint";

// A bus on which nobody is.
class NoBus : public IPellInternalClient {
 public:
  int sendMessage(const PellInternalMessage& /*message*/) override { return 0; }
  int onMessage(const PellInternalMessage& /*message*/) override { return 0; }
  void subscribe(const std::string& /*path*/) override {}
};

// What the daemon's classes log, without the name of the operation.
std::vector<std::string> said;  // NOLINT(*-global-variables): the sink is a plain function

void note(int priority, const std::string& text) {
  if (LOG_PRI(priority) > LOG_WARNING) {
    return;
  }
  constexpr std::string_view kOperation = "::loadFromJSON - ";
  const std::size_t named = text.find(kOperation);
  const std::size_t down = text.rfind("stays down: ");
  std::string line = named != std::string::npos  ? text.substr(named + kOperation.size())
                     : down != std::string::npos ? text.substr(down)
                                                 : text;
  line.erase(line.find_last_not_of(".:\n") + 1);
  said.push_back(printable(line));
}

std::string reasons() {
  std::string text;
  for (const std::string& line : said) {
    text += (text.empty() ? "" : "; ") + line;
  }
  return text;
}

// A text and where its lines begin in it once their ends are left out, as the daemon reads a file.
class JoinedLines {
 public:
  explicit JoinedLines(const std::string& lines) {
    text_.reserve(lines.size());
    starts_.push_back(0);
    for (const char byte : lines) {
      if (byte == '\n') {
        starts_.push_back(text_.size());
      } else {
        text_ += byte;
      }
    }
    text_.resize(std::min(text_.size(), text_.find('\0')));
  }

  const std::string& text() const { return text_; }
  // Counted from 1.
  std::size_t lineOf(std::size_t place) const {
    return static_cast<std::size_t>(std::upper_bound(starts_.begin(), starts_.end(), place) -
                                    starts_.begin());
  }

 private:
  std::string text_;
  std::vector<std::size_t> starts_;
};

// The place of the quote that ends the string which begins there.
std::size_t endOfString(const std::string& text, std::size_t at) {
  for (++at; at < text.size() && text[at] != '"'; ++at) {
    at += text[at] == '\\' ? 1 : 0;
  }
  return at;
}

// Where the elements of a list begin: that of the member with the number, counted from 0, of the
// object that the text is. Looks at nothing but brackets, commas and quotes, since the text has
// been parsed.
std::vector<std::size_t> placesOfElements(const std::string& text, std::size_t member) {
  std::vector<std::size_t> places;
  std::size_t depth = 0;
  std::size_t passed = 0;
  bool begins = false;  // the next value is an element
  const auto inList = [&] { return depth == 2 && passed == member; };
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char byte = text[at];
    if (static_cast<unsigned char>(byte) <= ' ') {
      continue;
    }
    const bool closes = byte == '}' || byte == ']';
    if (begins && !closes) {
      places.push_back(at);
    }
    begins = false;
    if (byte == '"') {
      at = endOfString(text, at);
    } else if (byte == '{' || byte == '[') {
      ++depth;
      begins = inList();
    } else if (closes) {
      if (inList()) {
        break;
      }
      --depth;
    } else if (byte == ',') {
      passed += depth == 1 ? 1 : 0;
      begins = inList();
    }
  }
  return places;
}

std::size_t placeAmongMembers(const cJSON* object, const cJSON* member) {
  std::size_t place = 0;
  for (const cJSON* one = object->child; one != nullptr && one != member; one = one->next) {
    ++place;
  }
  return place;
}

enum class Fate { Taken, Refused, LeftOut };

struct Entry {
  std::size_t line = 0;
  Fate fate = Fate::Taken;
  std::string text;
};

// The entries of a file and what becomes of them.
class FileCheck {
 public:
  explicit FileCheck(const std::string& file) : file_(file) {}

  void read() {
    std::error_code unknown;
    const std::uintmax_t size = std::filesystem::file_size(file_, unknown);
    if (!unknown && size > kMostBytes) {
      throw CommandFailure(ExitCode::Refused,
                           file_ + " has " + std::to_string(size) +
                               " bytes, more than a check reads (" + std::to_string(kMostBytes) +
                               ")",
                           "As many connection points as the daemon takes need a quarter of that.");
    }
    const JoinedLines lines(readTextFile(file_, true));
    const JSONPtr document = parse(lines);
    const cJSON* list = arrayMember(document.get(), kListName);
    const std::vector<std::size_t> places =
        placesOfElements(lines.text(), placeAmongMembers(document.get(), list));
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, list) {
      const std::size_t number = entries_.size();
      entries_.emplace_back().line = number < places.size() ? lines.lineOf(places[number]) : 0;
      said.clear();
      take(element);
    }
  }

  void print(Output& output) const {
    std::array<std::size_t, 3> counts{};
    std::string lines;
    for (const Entry& entry : entries_) {
      constexpr std::array<const char*, 3> kFates = {"taken", "refused", "left out"};
      const auto fate = static_cast<std::size_t>(entry.fate);
      ++counts[fate];
      lines += printable(file_) + ":" + std::to_string(entry.line) + ": " + kFates[fate] + ": " +
               entry.text + "\n";
    }
    output.line(lines + std::to_string(counts[0]) + " taken, " + std::to_string(counts[1]) +
                " refused, " + std::to_string(counts[2]) + " left out");
    if (counts[1] > 0) {
      throw CommandFailure(ExitCode::Refused, "");
    }
  }

 private:
  JSONPtr parse(const JoinedLines& lines) const {
    try {
      return parseConnectionPointFile(lines.text(), file_);
    } catch (const std::runtime_error& error) {
      const JSONPtr any(cJSON_Parse(lines.text().c_str()));
      throw CommandFailure(ExitCode::Refused, error.what(),
                           any ? "" : faultInJSON(readTextFile(file_, true)));
    }
  }

  void take(const cJSON* element) {
    Entry& entry = entries_.back();
    const std::unique_ptr<ConnectionPoint> point = manager_->createSupported(element);
    if (!point) {
      const char* name = stringMember(element, "uniqueID");
      const std::string who = name != nullptr ? printable(name) + ", " : "";
      entry.fate = said.empty() ? Fate::LeftOut : Fate::Refused;
      entry.text = who + (said.empty() ? silentReason(element) : reasons());
      return;
    }
    // Warns of a place that is none; where no routers can be reached it does nothing else.
    point->connect();
    entry.text = described(*point) + (said.empty() ? "" : "; " + reasons());
    const std::string uniqueID = point->getUniqueID();
    const auto known = byUniqueID_.find(uniqueID);
    if (known != byUniqueID_.end()) {
      Entry& former = entries_[known->second];
      former.fate = Fate::LeftOut;
      former.text += "; line " + std::to_string(entry.line) + " describes the same unique ID again";
      known->second = entries_.size() - 1;
    } else if (byUniqueID_.size() < ConnectionPointSet::kMaxStored) {
      byUniqueID_.emplace(uniqueID, entries_.size() - 1);
    } else {
      entry.fate = Fate::Refused;
      entry.text += "; " + std::to_string(byUniqueID_.size()) + " are stored already";
    }
  }

  // Why the daemon makes nothing of an entry without a word.
  std::string silentReason(const cJSON* element) {
    const char* type = stringMember(element, "type");
    if (type == nullptr) {
      return "it has no type";
    }
    if (!manager_->isTypeSupported(type)) {
      return "its type is \"" + excerpt(type) + "\"";
    }
    RemoteValtorConnectionPointManager lenient("valtor", "valtor", bus_, false);
    return lenient.createSupported(element) ? "its address is that of the controller itself"
                                            : "the daemon makes none";
  }

  static std::string described(const ConnectionPoint& point) {
    const auto phy = point.firstTCPPhy();
    return printable(point.getName()) + " (" + printable(point.getUniqueID()) + ")" +
           (phy ? ", " + phy->getIPAddress() + ":" + std::to_string(phy->getPort())
                : ", never connected: its first phy is not of type tcp") +
           (point.isEnabled() ? "" : ", disabled") +
           (point.isServerConnectionPoint() ? ", as an incoming client: not \"server\": true" : "");
  }

  const std::string file_;
  NoBus bus_;
  // As the daemon makes it for the active database.
  const std::unique_ptr<RemoteValtorConnectionPointManager> manager_ =
      std::make_unique<RemoteValtorConnectionPointManager>("valtor", "valtor", bus_);
  std::vector<Entry> entries_;
  std::map<std::string, std::size_t> byUniqueID_;  // the entry that counts
};

}  // namespace

void check(const std::string& file, Output& output) {
  // A manager makes the folder of the incoming-client file: not this one.
  setPathPrefix("/dev/null");
  setLogSink(note);
  FileCheck check(file);
  try {
    check.read();
  } catch (const std::runtime_error& error) {
    const auto* failure = dynamic_cast<const CommandFailure*>(&error);
    throw CommandFailure(ExitCode::Refused, printable(error.what()),
                         failure != nullptr ? failure->hint : "");
  }
  check.print(output);
}

}  // namespace valtor
