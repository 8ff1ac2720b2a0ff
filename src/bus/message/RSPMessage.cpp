#include "bus/message/RSPMessage.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace valtor {

namespace {

struct Status {
  int code;
  const char* text;
};

constexpr std::array<Status, 21> kStatusTable = {{
    {kStatusOK, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {210, "OK With Info"},
    {kStatusBadRequest, "Bad Request"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {429, "Too Many Requests"},
    {480, "Connection Point Not Found"},
    {481, "Connection Point Disconnected"},
    {482, "Device Not Found"},
    {490, "Route Protected"},
    {491, "Resource Protected"},
    {492, "Breakaway Error"},
    {493, "No Rule"},
    {494, "No Resource"},
    {495, "No Access"},
    {496, "Out of Range"},
}};

// Null for a code outside the table.
const char* validStatusText(int code) {
  const auto* const found =
      std::find_if(kStatusTable.begin(), kStatusTable.end(),
                   [code](const Status& status) { return status.code == code; });
  return found != kStatusTable.end() ? found->text : nullptr;
}

RSPMessage::Request describe(const PellInternalMessage& request) {
  return {request.getPath(), request.header.sourceConnID, request.getUniqueId(), request.getKind()};
}

}  // namespace

const char* statusText(int code) {
  if (code == kStatusNone) {
    return "Unknown";
  }
  const char* text = validStatusText(code);
  return text != nullptr ? text : "";
}

RSPMessage::RSPMessage(const Request& request, const char* objectName, int statusCode,
                       JSONPtr param, JSONPtr details)
    : PellInternalMessage(MessageKind::RSP, request.path, request.connID, request.identifier) {
  addText("requestCommand", kindName(request.kind));
  addStatus(statusCode);
  addText("objectName", objectName);
  addMember(builtBody(), "details", std::move(details));
  addMember(builtBody(), "param", std::move(param));
}

RSPMessage::RSPMessage(const PellInternalMessage& request, const char* objectName, int statusCode,
                       JSONPtr details)
    : RSPMessage(describe(request), objectName, statusCode, nullptr, std::move(details)) {}

RSPMessage::RSPMessage(const PellInternalMessage& request, const char* objectBase, JSONPtr value,
                       ValueKey key)
    : RSPMessage(request, kStatusOK) {
  addText("objectBase", objectBase);
  addMember(builtBody(), key == ValueKey::ParamDescriptor ? "paramDescriptor" : "param",
            std::move(value));
}

RSPMessage::RSPMessage(const PellInternalMessage& request, int statusCode)
    : RSPMessage(describe(request), nullptr, statusCode, nullptr, nullptr) {}

RSPMessage::RSPMessage(const PellInternalMessage& request, std::string identifier)
    : PellInternalMessage(MessageKind::RSP, request.getPath(), request.header.sourceConnID,
                          std::move(identifier)) {}

RSPMessage::~RSPMessage() = default;

RSPMessage RSPMessage::withoutRequestCommand(const PellInternalMessage& request, JSONPtr param) {
  RSPMessage response(request, request.knownUniqueId());
  response.addStatus(kStatusOK);
  addMember(response.builtBody(), "param", std::move(param));
  return response;
}

void RSPMessage::addStatus(int statusCode) {
  cJSON_AddNumberToObject(builtBody(), "statusCode", statusCode);
  addText("statusMsg", statusText(statusCode));
}

void RSPMessage::addText(const char* key, const char* text) {
  if (text != nullptr) {
    cJSON_AddStringToObject(builtBody(), key, text);
  }
}

int RSPMessage::getStatusCode() const {
  const cJSON* member = cJSON_GetObjectItem(viewBody(), "statusCode");
  if (cJSON_IsNumber(member) == 0 || validStatusText(member->valueint) == nullptr) {
    return kStatusNone;
  }
  return member->valueint;
}

ResponseSummary readResponseSummary(const PellInternalMessage& message) {
  const cJSON* tree = message.viewBody();
  if (cJSON_IsNull(tree) != 0) {
    throw std::runtime_error("no data object");
  }
  ResponseSummary summary;
  summary.id = getStringField(tree, "id");
  summary.requestCommand = getStringField(tree, "requestCommand");
  summary.statusCode = getIntField(tree, "statusCode");
  summary.statusMsg = getStringField(tree, "statusMsg");
  return summary;
}

std::string getStringField(const cJSON* tree, const char* key) {
  const cJSON* member = cJSON_GetObjectItem(tree, key);
  if (member == nullptr) {
    throw std::runtime_error(std::string(key) + " not found");
  }
  const char* text = cJSON_GetStringValue(member);
  if (text == nullptr) {
    throw std::runtime_error(std::string(key) + " is not string type");
  }
  return text;
}

int getIntField(const cJSON* tree, const char* key) {
  const cJSON* member = cJSON_GetObjectItem(tree, key);
  if (member == nullptr) {
    throw std::runtime_error(std::string(key) + " not found");
  }
  return member->valueint;
}

}  // namespace valtor
