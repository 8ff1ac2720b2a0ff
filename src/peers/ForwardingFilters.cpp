#include "peers/ForwardingFilters.h"

#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <string_view>

#include "app/util/Console.h"
#include "app/util/OwnedJSON.h"
#include "bus/message/MessageIdentifier.h"
#include "peers/DatabaseIdHandler.h"

namespace valtor {

namespace {

// Connection ids that the rules name.
constexpr int32_t kController = 100;
constexpr int32_t kControllerPanel = 490;
constexpr int32_t kPanelA = 2;
constexpr int32_t kPanelB = 3;

bool isOneOf(MessageKind kind, std::initializer_list<MessageKind> kinds) {
  for (const MessageKind one : kinds) {
    if (kind == one) {
      return true;
    }
  }
  return false;
}

bool isKindBetween(const PellInternalMessage& message, MessageKind first, MessageKind last) {
  return message.getKind() >= first && message.getKind() <= last;
}

bool isConfigurationForMasterOnly(const PellInternalMessage& message) {
  return message.header.path == "device" &&
         isOneOf(message.getKind(), {MessageKind::UPDATE, MessageKind::SET, MessageKind::DEL,
                                     MessageKind::RSP, MessageKind::NOT});
}

bool isSystemMessageToKeep(const PellInternalMessage& message) {
  if (message.header.path != "system") {
    return false;
  }
  if (message.header.sourceConnID != kControllerPanel || message.header.destConnID != kController) {
    return true;
  }
  traceLine("Passed System Message: %s\n", printJSON(message.viewBody(), false).c_str());
  return false;
}

bool asksForDeviceInfo(const PellInternalMessage& message) {
  if (message.getKind() != MessageKind::GET || message.header.path != "device") {
    return false;
  }
  const cJSON* names = cJSON_GetObjectItem(message.viewBody(), "objectName");
  const cJSON* name = nullptr;
  cJSON_ArrayForEach(name, names) {
    if (cJSON_IsString(name) != 0 && std::string_view(name->valuestring) == "deviceInfo") {
      return true;
    }
  }
  return false;
}

bool answersAnotherHost(const PellInternalMessage& message, const std::string& dbRequestHost) {
  if (message.getKind() != MessageKind::RSP || message.header.path != "db" ||
      message.bodyText() == nullptr) {
    return false;
  }
  const auto start = std::chrono::system_clock::now();
  const std::string id = DatabaseIdHandler::findId(message.bodyText());
  if (id.find('.') == std::string::npos) {
    return false;
  }
  const std::string host = hostOfIdentifier(id);
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::system_clock::now() - start);
  std::printf("*** RAPIDJSON DB FILTER TOOK %lld us ***\n", static_cast<long long>(took.count()));
  return !dbRequestHost.empty() && host != dbRequestHost;
}

bool isSourceSupported(const PellInternalMessage& message) {
  const int32_t source = message.header.sourceConnID;
  if (source == kController || source == kControllerPanel) {
    return true;
  }
  return message.getKind() == MessageKind::CMD && (source == kPanelA || source == kPanelB);
}

bool carriesDeviceInfo(const PellInternalMessage& message) {
  if (message.getKind() != MessageKind::RSP || message.header.path != "device") {
    return false;
  }
  const cJSON* param = cJSON_GetObjectItem(message.viewBody(), "param");
  return cJSON_GetObjectItem(param, "deviceInfo") != nullptr;
}

}  // namespace

FilterResult nodeMasterToPeer(const PellInternalMessage& message) {
  if (!isKindBetween(message, MessageKind::RSP, MessageKind::UPDATE)) {
    return FilterResult::blocked("commandTypeSupported");
  }
  return FilterResult::passed();
}

FilterResult routerMasterToPeer(const PellInternalMessage& message,
                                const std::string& dbRequestHost) {
  if (isConfigurationForMasterOnly(message)) {
    return FilterResult::blocked("isConnectionPointConfig");
  }
  if (isSystemMessageToKeep(message)) {
    return FilterResult::blocked("isSystemMessage");
  }
  if (asksForDeviceInfo(message)) {
    return FilterResult::blocked("isDeviceInfoGET");
  }
  if (answersAnotherHost(message, dbRequestHost)) {
    return FilterResult::blocked("isDatabaseRSPForMe");
  }
  return FilterResult::passed();
}

FilterResult nodePeerToMaster(const PellInternalMessage& message) {
  if (!isKindBetween(message, MessageKind::RSP, MessageKind::NAK)) {
    return FilterResult::blocked("commandTypeSupported");
  }
  return FilterResult::passed();
}

FilterResult routerPeerToMaster(const PellInternalMessage& message) {
  if (!isSourceSupported(message)) {
    return FilterResult::blocked("reqIDSupported");
  }
  const MessageKind kind = message.getKind();
  if (message.header.path == "device" &&
      isOneOf(kind, {MessageKind::UPDATE, MessageKind::SET, MessageKind::DEL, MessageKind::GET,
                     MessageKind::NOT})) {
    return FilterResult::blocked("isConnectionPointConfig");
  }
  if (message.header.path == "system" &&
      isOneOf(kind, {MessageKind::UPDATE, MessageKind::SET, MessageKind::DEL})) {
    return FilterResult::blocked("isSystemSETMessage");
  }
  if (carriesDeviceInfo(message)) {
    return FilterResult::blocked("isDeviceInfoRSP");
  }
  return FilterResult::passed();
}

void traceBlocked(const char* direction, const PellInternalMessage& message, const char* rule) {
  std::string header = message.headerLine();
  if (!header.empty() && header.back() == '\n') {
    header.pop_back();
  }
  if (header.empty()) {
    return;
  }
  traceLine("%s filter blocked %s (rule:%s)\n", direction, header.c_str(),
            rule != nullptr ? rule : "??");
}

}  // namespace valtor
