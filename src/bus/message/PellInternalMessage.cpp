#include "bus/message/PellInternalMessage.h"

#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/JSONValues.h"
#include "bus/message/MessageIdentifier.h"

namespace valtor {

namespace {

JSONPtr makeNull() {
  JSONPtr item(cJSON_CreateNull());
  if (!item) {
    throw std::bad_alloc();
  }
  return item;
}

JSONPtr parseText(const char* begin) {
  if (begin == nullptr) {
    return makeNull();
  }
  const std::string_view text = begin;
  if (holdsMoreValues(text, PellInternalMessage::kMostValues)) {
    syslog(LOG_WARNING,
           "PellInternalMessage body of %zu bytes is not looked into, it holds more than %zu "
           "values\n",
           text.size(), PellInternalMessage::kMostValues);
    return makeNull();
  }
  const JSONFailureScope scope;
  JSONPtr tree(cJSON_ParseWithLength(begin, text.size() + 1));
  if (!tree) {
    requireWholeJSON();  // not the text's fault
    syslog(LOG_INFO, "PellInternalMessage data decode error:%s\n", quotedForLog(begin).c_str());
    return makeNull();
  }
  return tree;
}

}  // namespace

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

// Moving a vector keeps its storage, so bodyText_ still points into it.
PellInternalMessage::PellInternalMessage(PellInternalMessage&& other) noexcept
    : header(std::exchange(other.header, PellInternalHeader())),
      bodyText_(std::exchange(other.bodyText_, nullptr)),
      rawBuffer_(std::move(other.rawBuffer_)),
      body_(std::move(other.body_)),
      rawVector_(std::move(other.rawVector_)),
      uniqueId_(std::exchange(other.uniqueId_, {})),
      view_(std::move(other.view_)),
      decoded_(std::exchange(other.decoded_, false)),
      receivedBytes_(std::exchange(other.receivedBytes_, 0)) {}

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
    receivedBytes_ = std::exchange(other.receivedBytes_, 0);
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
  if (!HeaderLine::decode(std::string_view(payload, lineEnd), header)) {
    syslog(LOG_INFO, "PellInternalMessage header decode error:%s\n", quotedForLog(payload).c_str());
    return;
  }
  bodyText_ = lineEnd + 1;
  decoded_ = true;
}

HeaderLine PellInternalMessage::writtenLine(int32_t sourceConnID) const {
  const HeaderLine line(header, sourceConnID);
  if (line.isCut()) {
    syslog(LOG_WARNING,
           "PellInternalMessage header line cut at %zu characters, the message will not be "
           "understood: kind %s, path of %zu characters\n",
           HeaderLine::kLongest, kindName(header.kind), header.path.size());
  }
  return line;
}

std::string PellInternalMessage::headerLine() const {
  return std::string(HeaderLine(header, header.sourceConnID).text());
}

std::string PellInternalMessage::encode() const { return encodeFrom(header.sourceConnID); }

std::string PellInternalMessage::encodeFrom(int32_t sourceConnID) const {
  std::string payload(writtenLine(sourceConnID).text());
  JSONText rendered;
  payload += bodyBytes(rendered);
  return payload;
}

std::string_view PellInternalMessage::bodyBytes(JSONText& rendered) const {
  const char* text = bodyText_;
  if (text == nullptr || body_) {
    rendered = renderJSON(body_.get(), false);
    requireWholeJSON();
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

void PellInternalMessage::splitPath() {
  for (std::string& element : elementsOfPath(header.path)) {
    header.pathElements.push_back(std::move(element));
  }
}

}  // namespace valtor
