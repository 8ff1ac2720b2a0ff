#include "bus/message/HeaderLine.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <syslog.h>
#include <utility>

#include "bus/message/ScheduledTime.h"

namespace valtor {

namespace {

constexpr std::array<const char*, 11> kKindNames = {
    "CMD", "CMDRSP", "CMDNOT", "RSP", "NOT", "ACK", "NAK", "GET", "SET", "DEL", "UPDATE"};

constexpr std::size_t kLongestReceived = std::size_t{64} * 1024;

// The number before the "@" of a connection element, with the base prefixes of strtol.
std::optional<int32_t> connectionNumber(const std::string& text) {
  constexpr std::size_t kLongestNumber = 15;
  if (text.empty() || text.size() > kLongestNumber) {
    return std::nullopt;
  }
  char* end = nullptr;
  errno = 0;
  const long number = std::strtol(text.c_str(), &end, 0);
  if (errno != 0 || end == text.c_str() || *end != '\0' || !std::in_range<int32_t>(number)) {
    return std::nullopt;
  }
  return static_cast<int32_t>(number);
}

// A number, or a string of the form number "@" name. Anything else leaves both values alone.
void decodeConnection(const cJSON* element, int32_t& connID, std::string& name) {
  if (cJSON_IsNumber(element) != 0) {
    connID = element->valueint;
    name.clear();
    return;
  }
  const char* text = cJSON_GetStringValue(element);
  const char* at = text != nullptr ? std::strchr(text, '@') : nullptr;
  if (at == nullptr) {
    return;
  }
  const std::optional<int32_t> number = connectionNumber(std::string(text, at));
  if (!number) {
    return;
  }
  connID = *number;
  if (at[1] != '\0') {
    name = at + 1;
  }
}

void logSchedule(const timespec& time) {
  constexpr long kNanosecondsPerMillisecond = 1'000'000;
  std::tm local{};
  localtime_r(&time.tv_sec, &local);
  char text[64] = "";
  std::strftime(text, sizeof text, "%FT%T", &local);
  syslog(LOG_INFO, "Message Scheduled at %s.%03d\n", text,
         static_cast<int>(time.tv_nsec / kNanosecondsPerMillisecond));
}

// Takes the text from the front of the line; false when something else stands there.
bool take(std::string_view& line, std::string_view text) {
  const bool stands = line.substr(0, text.size()) == text;
  line.remove_prefix(stands ? text.size() : 0);
  return stands;
}

// Takes everything before the next quote.
std::string_view takeUnquoted(std::string_view& line) {
  const std::string_view text = line.substr(0, line.find('"'));
  line.remove_prefix(text.size());
  return text;
}

bool takeNumber(std::string_view& line, int32_t& number) {
  const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
  line.remove_prefix(static_cast<std::size_t>(end - line.data()));
  return error == std::errc();
}

// The very spelling that is written, as nearly every line has it, is read without a tree. False,
// with the header as it was, for every other one, good or bad.
bool decodeWritten(std::string_view line, PellInternalHeader& header) {
  const bool opened = take(line, "[\"");
  const MessageKind kind = kindFromName(takeUnquoted(line));
  const bool named = take(line, "\", \"");
  const std::string_view path = takeUnquoted(line);
  int32_t source = 0;
  int32_t destination = 0;
  if (!opened || kind == MessageKind::Unknown || !named || !isPlainPath(path) ||
      !take(line, "\", ") || !takeNumber(line, source) || !take(line, ", ") ||
      !takeNumber(line, destination) || line != ", 0]") {
    return false;
  }
  header.kind = kind;
  header.path = path;
  header.sourceConnID = source;
  header.destConnID = destination;
  return true;
}

}  // namespace

const char* kindName(MessageKind kind) {
  const auto index = static_cast<std::size_t>(kind);
  return index < kKindNames.size() ? kKindNames[index] : "";
}

MessageKind kindFromName(std::string_view name) {
  int32_t index = 0;
  for (const char* known : kKindNames) {
    if (name == known) {
      return static_cast<MessageKind>(index);
    }
    ++index;
  }
  return MessageKind::Unknown;
}

bool isPlainPath(std::string_view path) {
  return std::none_of(path.begin(), path.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
  });
}

bool coversPath(std::string_view pattern, std::string_view path) {
  if (pattern.empty() || pattern.back() != '*') {
    return pattern == path;
  }
  pattern.remove_suffix(1);
  return path.substr(0, pattern.size()) == pattern;
}

std::vector<std::string> elementsOfPath(const std::string& path) {
  std::vector<std::string> elements;
  std::size_t start = 0;
  for (std::size_t dot = path.find('.'); dot != std::string::npos; dot = path.find('.', start)) {
    elements.push_back(path.substr(start, dot - start));
    start = dot + 1;
  }
  elements.push_back(path.substr(start));
  return elements;
}

HeaderElements::HeaderElements(const std::string& line) {
  if (line.size() <= kLongestReceived && line.find("\\u0000") == std::string::npos) {
    takeJSONFailure();
    tree_.reset(cJSON_Parse(line.c_str()));
    if (!tree_) {
      requireWholeJSON();  // not the line's fault
    }
  }
  const cJSON* item = cJSON_IsArray(tree_.get()) ? tree_->child : nullptr;
  for (const cJSON** element : {&kind, &path, &source, &destination, &schedule}) {
    *element = item;
    item = item != nullptr ? item->next : nullptr;
  }
}

HeaderLine::HeaderLine(const PellInternalHeader& header, int32_t sourceConnID) {
  append("[\"");
  append(kindName(header.kind));
  append("\", \"");
  append(header.path.c_str());  // a path ends at its first NUL
  append("\", ");
  append(sourceConnID);
  append(", ");
  append(header.destConnID);
  append(header.isScheduled() ? ", \"datehere\"]\n" : ", 0]\n");
}

void HeaderLine::append(std::string_view text) {
  const std::size_t count = std::min(text.size(), kLongest - size_);
  std::copy_n(text.data(), count, text_.data() + size_);
  size_ += count;
  isCut_ = isCut_ || count < text.size();
}

void HeaderLine::append(int32_t number) {
  std::array<char, 11> digits;  // "-2147483648"
  char* end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  append(std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())));
}

bool HeaderLine::decode(std::string_view line, PellInternalHeader& header) {
  if (line.size() <= kLongestReceived && decodeWritten(line, header)) {
    return true;
  }
  const HeaderElements elements{std::string(line)};
  const char* kind = cJSON_GetStringValue(elements.kind);
  if (kind == nullptr) {
    return false;
  }
  header.kind = kindFromName(kind);
  const char* path = cJSON_GetStringValue(elements.path);
  if (header.kind == MessageKind::Unknown || path == nullptr || !isPlainPath(path) ||
      elements.source == nullptr || elements.destination == nullptr) {
    return false;
  }
  header.path = path;
  decodeConnection(elements.source, header.sourceConnID, header.sourceName);
  decodeConnection(elements.destination, header.destConnID, header.destName);
  if (parseScheduledTime(header, elements.schedule)) {
    logSchedule(header.scheduledTime);
  }
  return true;
}

}  // namespace valtor
