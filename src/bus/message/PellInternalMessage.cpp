#include "bus/message/PellInternalMessage.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "bus/message/ScheduledTime.h"

namespace valtor {

namespace {

constexpr std::array<const char*, 11> kKindNames = {
    "CMD", "CMDRSP", "CMDNOT", "RSP", "NOT", "ACK", "NAK", "GET", "SET", "DEL", "UPDATE"};

constexpr std::size_t kHeaderLineBuffer = 256;  // bytes, the closing NUL included

// The first elements of a header line; null where the array is shorter.
using HeaderElements = std::array<const cJSON*, 5>;

HeaderElements headerElements(const cJSON* array) {
  HeaderElements elements{};
  const cJSON* item = cJSON_IsArray(array) ? array->child : nullptr;
  for (const cJSON*& element : elements) {
    element = item;
    item = item != nullptr ? item->next : nullptr;
  }
  return elements;
}

// The path is written without escaping, so one that needs escapes would leave as another message
// than the one that was looked at.
bool isPlainPath(const char* path) {
  for (const char* c = path; *c != '\0'; ++c) {
    if (static_cast<unsigned char>(*c) < 0x20 || *c == '"' || *c == '\\') {
      return false;
    }
  }
  return true;
}

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

// False when a rule is broken. The kind is stored as soon as it is known, everything else only when
// the whole header is good.
bool decodeHeader(PellInternalHeader& header, const cJSON* array) {
  const auto [kind, path, source, destination, schedule] = headerElements(array);
  const char* kindText = cJSON_GetStringValue(kind);
  if (kindText == nullptr) {
    return false;
  }
  header.kind = kindFromName(kindText);
  const char* pathText = cJSON_GetStringValue(path);
  if (header.kind == MessageKind::Unknown || pathText == nullptr || !isPlainPath(pathText) ||
      source == nullptr || destination == nullptr) {
    return false;
  }
  header.path = pathText;
  decodeConnection(source, header.sourceConnID, header.sourceName);
  decodeConnection(destination, header.destConnID, header.destName);
  if (parseScheduledTime(header, schedule)) {
    logSchedule(header.scheduledTime);
  }
  return true;
}

// Whether the line is worth parsing. One of a megabyte would only cost memory, since none longer
// than 255 characters is ever written; and a NUL spelled out would cut the path short when it is
// decoded.
bool isPlausibleHeader(const char* begin, const char* end) {
  constexpr std::ptrdiff_t kLongestHeader = std::ptrdiff_t{64} * 1024;
  return end - begin <= kLongestHeader && std::strstr(begin, "\\u0000") == nullptr;
}

JSONPtr makeNull() {
  JSONPtr item(cJSON_CreateNull());
  if (!item) {
    throw std::bad_alloc();
  }
  return item;
}

JSONPtr parseText(const char* text) {
  if (text == nullptr) {
    return makeNull();
  }
  JSONPtr tree(cJSON_Parse(text));
  if (!tree) {
    syslog(LOG_INFO, "PellInternalMessage data decode error:%s\n", quotedForLog(text).c_str());
    return makeNull();
  }
  return tree;
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

PellInternalMessage::PellInternalMessage(MessageKind kind, std::string path)
    : PellInternalMessage(kind, std::move(path), 0, nextMessageIdentifier()) {}

PellInternalMessage::PellInternalMessage(MessageKind kind, std::string path, int32_t destConnID,
                                         std::string identifier)
    : body_(cJSON_CreateObject()), uniqueId_(std::move(identifier)) {
  header.kind = kind;
  header.path = std::move(path);
  header.destConnID = destConnID;
  cJSON_AddStringToObject(body_.get(), "id", uniqueId_.c_str());
}

PellInternalMessage::PellInternalMessage(MessageKind kind, std::string path, JSONPtr body)
    : body_(body ? std::move(body) : JSONPtr(cJSON_CreateObject())),
      uniqueId_(nextMessageIdentifier()) {
  header.kind = kind;
  header.path = std::move(path);
  cJSON_AddStringToObject(body_.get(), "id", uniqueId_.c_str());
}

PellInternalMessage::PellInternalMessage(std::unique_ptr<char[]> payload)
    : rawBuffer_(std::move(payload)), decoded_(false) {
  if (rawBuffer_) {
    decode(rawBuffer_.get());
  }
}

PellInternalMessage::PellInternalMessage(std::vector<char> payload)
    : rawVector_(std::move(payload)), decoded_(false) {
  if (rawVector_.empty() || rawVector_.back() != '\0') {
    std::fputs("** PellInternalMessage Error: Input vector must be null terminated **\n", stderr);
    rawVector_.push_back('\0');
  }
  decode(rawVector_.data());
  if (!decoded_) {
    throw std::runtime_error("Error Parsing PellinternalMessage");
  }
}

PellInternalMessage::~PellInternalMessage() = default;

PellInternalMessage::PellInternalMessage(PellInternalMessage&& other) noexcept {
  *this = std::move(other);
}

PellInternalMessage& PellInternalMessage::operator=(PellInternalMessage&& other) noexcept {
  if (this != &other) {
    header = std::exchange(other.header, PellInternalHeader());
    bodyText_ = std::exchange(other.bodyText_, nullptr);
    rawBuffer_ = std::move(other.rawBuffer_);
    body_ = std::move(other.body_);
    // Moving a vector keeps its storage, so bodyText_ still points into it.
    rawVector_ = std::exchange(other.rawVector_, {});
    uniqueId_ = std::exchange(other.uniqueId_, {});
    view_ = std::move(other.view_);
    decoded_ = std::exchange(other.decoded_, false);
  }
  return *this;
}

void PellInternalMessage::decode(char* payload) {
  char* lineEnd = std::strchr(payload, '\n');
  if (lineEnd == nullptr) {
    syslog(LOG_INFO, "PellInternalMessage Header not found:%s\n", quotedForLog(payload).c_str());
    return;
  }
  *lineEnd = '\0';
  const JSONPtr line(isPlausibleHeader(payload, lineEnd) ? cJSON_Parse(payload) : nullptr);
  if (!decodeHeader(header, line.get())) {
    syslog(LOG_INFO, "PellInternalMessage header decode error:%s\n", quotedForLog(payload).c_str());
    return;
  }
  bodyText_ = lineEnd + 1;
  decoded_ = true;
}

std::string PellInternalMessage::formatHeaderLine(int32_t sourceConnID, bool reportCut) const {
  char line[kHeaderLineBuffer] = "";
  const char* kind = kindName(header.kind);
  const int length =
      isScheduled()
          ? std::snprintf(line, sizeof line, "[\"%s\", \"%s\", %d, %d, \"%s\"]\n", kind,
                          header.path.c_str(), sourceConnID, header.destConnID, "datehere")
          : std::snprintf(line, sizeof line, "[\"%s\", \"%s\", %d, %d, 0]\n", kind,
                          header.path.c_str(), sourceConnID, header.destConnID);
  if (reportCut && length >= static_cast<int>(sizeof line)) {
    syslog(LOG_WARNING,
           "PellInternalMessage header line cut at %zu characters, the message will not be "
           "understood: kind %s, path of %zu characters\n",
           sizeof line - 1, kind, header.path.size());
  }
  return line;
}

std::string PellInternalMessage::headerLine() const {
  return formatHeaderLine(header.sourceConnID, false);
}

std::string PellInternalMessage::encode() const { return encodeFrom(header.sourceConnID); }

std::string PellInternalMessage::encodeFrom(int32_t sourceConnID) const {
  std::string payload = formatHeaderLine(sourceConnID, true);
  JSONText rendered;
  payload += bodyBytes(rendered);
  return payload;
}

std::string_view PellInternalMessage::bodyBytes(JSONText& rendered) const {
  const char* text = bodyText_;
  if (body_) {
    rendered = renderJSON(body_.get(), false);
    text = rendered.get();
  }
  return text != nullptr ? std::string_view(text) : std::string_view();
}

bool PellInternalMessage::isCommand() const {
  return header.kind == MessageKind::CMD || header.kind == MessageKind::CMDRSP ||
         header.kind == MessageKind::CMDNOT;
}

cJSON* PellInternalMessage::getBody() {
  if (!body_) {
    body_ = view_ ? std::move(view_) : parseText(bodyText_);
  }
  return body_.get();
}

JSONPtr PellInternalMessage::parseBody() const { return parseText(bodyText_); }

const cJSON* PellInternalMessage::viewBody() const {
  if (body_) {
    return body_.get();
  }
  if (!view_) {
    view_ = parseText(bodyText_);
  }
  return view_.get();
}

std::string PellInternalMessage::getUniqueId() const {
  if (uniqueId_.empty()) {
    if (const char* id = stringMember(viewBody(), "id")) {
      uniqueId_ = id;
    } else {
      syslog(LOG_DEBUG, "UniqueID not found.\n");
    }
  }
  return uniqueId_;
}

std::pair<int, int> PellInternalMessage::getSequence() const {
  const cJSON* sequence = arrayMember(viewBody(), "seq");
  const cJSON* number = sequence != nullptr ? sequence->child : nullptr;
  const cJSON* count = number != nullptr ? number->next : nullptr;
  if (count == nullptr || count->next != nullptr) {
    return {0, 0};
  }
  return {number->valueint, count->valueint};
}

bool PellInternalMessage::isScheduled() const {
  return header.scheduledTime.tv_sec != 0 || header.scheduledTime.tv_nsec != 0;
}

void PellInternalMessage::splitPath() {
  for (std::string& element : elementsOfPath(header.path)) {
    header.pathElements.push_back(std::move(element));
  }
}

}  // namespace valtor
