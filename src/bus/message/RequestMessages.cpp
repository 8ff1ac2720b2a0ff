#include "bus/message/RequestMessages.h"

#include <array>

#include "router/RouteOperation.h"

namespace valtor {

namespace {

constexpr const char* kRoutePath = "route";

}  // namespace

GETMessage::GETMessage(std::string path, JSONPtr value)
    : PellInternalMessage(MessageKind::GET, std::move(path)) {
  addMember(builtBody(), "param", std::move(value));
}

GETMessage::GETMessage(std::string path, const std::vector<std::string>& objectNames,
                       JSONPtr arguments, int descriptor)
    : PellInternalMessage(MessageKind::GET, std::move(path)) {
  JSONPtr names(cJSON_CreateArray());
  for (const std::string& name : objectNames) {
    addElement(names.get(), JSONPtr(cJSON_CreateString(name.c_str())));
  }
  JSONPtr param(cJSON_CreateObject());
  addMember(param.get(), "objectName", std::move(names));
  addMember(param.get(), "arguments", std::move(arguments));
  addMember(builtBody(), descriptor == 1 ? "paramDescriptor" : "param", std::move(param));
}

GETMessage::~GETMessage() = default;

SETMessage::SETMessage(std::string path, JSONPtr value)
    : SETMessage(std::move(path), std::move(value), 0, 0) {}

SETMessage::SETMessage(std::string path, JSONPtr value, int sequenceNumber, int sequenceCount)
    : PellInternalMessage(MessageKind::SET, std::move(path)) {
  if (sequenceNumber > 0 && sequenceCount >= 1) {
    const std::array<int, 2> sequence = {sequenceNumber, sequenceCount};
    addMember(builtBody(), "seq",
              JSONPtr(cJSON_CreateIntArray(sequence.data(), static_cast<int>(sequence.size()))));
  }
  addMember(builtBody(), "param", std::move(value));
}

SETMessage::~SETMessage() = default;

NOTMessage::NOTMessage(std::string path, const char* key, JSONPtr value, Form form)
    : PellInternalMessage(MessageKind::NOT, std::move(path)) {
  if (form == Form::Plain) {
    addMember(builtBody(), key, std::move(value));
    return;
  }
  JSONPtr param(cJSON_CreateObject());
  addMember(param.get(), key, std::move(value));
  addMember(builtBody(), "param", std::move(param));
}

NOTMessage::~NOTMessage() = default;

CMDMessage::CMDMessage(const RouteOperation& operation, const char* key)
    : CMDMessage(std::vector<RouteOperation>{operation}, key, operation.userID) {}

CMDMessage::CMDMessage(const std::vector<RouteOperation>& operations, const char* key, int userID)
    : PellInternalMessage(MessageKind::CMD, kRoutePath) {
  JSONPtr rendered(cJSON_CreateArray());
  for (const RouteOperation& operation : operations) {
    addElement(rendered.get(), operation.toJSON());
  }
  addMember(builtBody(), key, std::move(rendered));
  cJSON_AddNumberToObject(builtBody(), "userID", userID);
}

CMDMessage::CMDMessage(JSONPtr value, const char* key)
    : PellInternalMessage(MessageKind::CMD, kRoutePath) {
  addMember(builtBody(), key, std::move(value));
}

CMDMessage::CMDMessage(std::string path)
    : PellInternalMessage(MessageKind::CMDNOT, std::move(path)) {}

CMDMessage::CMDMessage(MessageKind kind, std::string path)
    : PellInternalMessage(kind, std::move(path)) {}

CMDMessage::CMDMessage(MessageKind kind, std::string path, int32_t destConnID,
                       std::string identifier)
    : PellInternalMessage(kind, std::move(path), destConnID, std::move(identifier)) {}

CMDMessage::~CMDMessage() = default;

}  // namespace valtor
