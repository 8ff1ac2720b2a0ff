// The requests on "device" that an AbstractConnectionPointManager takes.

#include <string_view>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "bus/message/RSPMessage.h"
#include "connections/AbstractConnectionPointManager.h"

namespace valtor {

namespace {

constexpr const char* kDevice = "device";
constexpr const char* kConnectionPoint = "connectionPoint";
constexpr const char* kConnectionPointManager = "connectionPointManager";
constexpr const char* kServerConnectionPoint = "serverConnectionPoint";
constexpr const char* kDeviceConnection = "deviceConnection";

const cJSON* paramOf(const PellInternalMessage& message) {
  return cJSON_GetObjectItem(message.viewBody(), "param");
}

}  // namespace

bool AbstractConnectionPointManager::handleMessage(const PellInternalMessage& message,
                                                   ResponseList& responses) {
  // Every message of the bus comes by here: nothing is copied to tell it is not for us.
  const std::string_view path = message.header.path;
  if (path.substr(0, path.find('.')) != kDevice) {
    return false;
  }
  switch (message.getKind()) {
    case MessageKind::GET:
      return handleGET(message, responses);
    case MessageKind::SET:
      return handleSET(message, responses);
    case MessageKind::DEL:
      return handleDEL(message, responses);
    case MessageKind::UPDATE:
      return handleUPDATE(message, responses);
    default:
      return false;
  }
}

std::optional<std::string> AbstractConnectionPointManager::addressedDevice(
    const PellInternalMessage& message) {
  // Not split as a whole: a path may be twenty million points.
  const std::string& path = message.header.path;
  const std::size_t first = path.find('.');
  if (first == std::string::npos) {
    return std::nullopt;
  }
  const std::size_t second = path.find('.', first + 1);
  return path.substr(first + 1, second == std::string::npos ? second : second - first - 1);
}

std::string_view AbstractConnectionPointManager::textOf(const cJSON* item) {
  const char* text = cJSON_GetStringValue(item);
  return text != nullptr ? text : "";
}

void AbstractConnectionPointManager::answer(ResponseList& responses,
                                            const PellInternalMessage& message, const char* name,
                                            JSONPtr value) {
  JSONPtr param(cJSON_CreateObject());
  addMember(param.get(), name, std::move(value));
  responses.push_back(std::make_unique<RSPMessage>(message, nullptr, std::move(param)));
}

bool AbstractConnectionPointManager::hasRoomForAnswer(const PellInternalMessage& message,
                                                      const ResponseList& responses) const {
  std::size_t stored = 0;
  {
    const Locked lock(lock_);
    stored = connectionPoints_.size();
  }
  if (responses.size() < kMaxAnswers && responses.size() * stored < kMaxAnswered) {
    return true;
  }
  syslog(LOG_WARNING,
         "A request of connection %d asks for too much, what follows its answer %zu is ignored.\n",
         message.header.sourceConnID, responses.size());
  return false;
}

bool AbstractConnectionPointManager::handleGET(const PellInternalMessage& message,
                                               ResponseList& responses) {
  if (addressedDevice(message)) {
    return false;
  }
  bool taken = false;
  const cJSON* name = nullptr;
  cJSON_ArrayForEach(name, arrayMember(message.viewBody(), "objectName")) {
    const std::string_view text = textOf(name);
    if (text != kConnectionPoint && text != kConnectionPointManager) {
      continue;
    }
    if (!hasRoomForAnswer(message, responses)) {
      break;
    }
    if (text == kConnectionPoint) {
      answer(responses, message, kConnectionPoint, getClientConnectionPointsJSON());
    } else {
      answer(responses, message, kConnectionPointManager, describeWithServers());
    }
    taken = true;
  }
  return taken;
}

JSONPtr AbstractConnectionPointManager::describeWithServers() const {
  JSONPtr description = toJSON();
  addMember(description.get(), kServerConnectionPoint, getServerConnectionPointsJSON());
  JSONPtr array(cJSON_CreateArray());
  addElement(array.get(), std::move(description));
  return array;
}

bool AbstractConnectionPointManager::offerDeviceParam(const std::string& uniqueID,
                                                      const PellInternalMessage& message) {
  bool taken = false;
  const Locked lock(lock_);
  for (const auto& entry : connectionPoints_) {
    taken = entry.second->handleDeviceParam(uniqueID, message) || taken;
  }
  return taken;
}

bool AbstractConnectionPointManager::handleSET(const PellInternalMessage& message,
                                               ResponseList& responses) {
  if (const auto device = addressedDevice(message)) {
    return !device->empty() && offerDeviceParam(*device, message);
  }
  const cJSON* param = paramOf(message);
  const bool reloads = arrayMember(param, kConnectionPoint) != nullptr ||
                       cJSON_GetObjectItem(param, getObjectName()) != nullptr;
  if (reloads && loadFromJSON(param) == 0) {
    saveDescription();
    return true;
  }
  return handleDeviceConnections(message, responses, false);
}

bool AbstractConnectionPointManager::handleUPDATE(const PellInternalMessage& message,
                                                  ResponseList& responses) {
  if (const auto device = addressedDevice(message)) {
    return !device->empty() && offerDeviceParam(*device, message);
  }
  mergeConnectionPoints(arrayMember(paramOf(message), kConnectionPoint));
  return handleDeviceConnections(message, responses, true);
}

bool AbstractConnectionPointManager::handleDeviceConnections(const PellInternalMessage& message,
                                                             ResponseList& responses,
                                                             bool notifyNew) {
  if (!applyDeviceConnections(arrayMember(message.viewBody(), kDeviceConnection), notifyNew)) {
    return false;
  }
  saveDescription();
  responses.push_back(
      std::make_unique<RSPMessage>(message, kConnectionPoint, kStatusOK, JSONPtr()));
  return true;
}

bool AbstractConnectionPointManager::applyDeviceConnections(const cJSON* array, bool notifyNew) {
  bool changed = false;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, array) {
    DeviceConnectionDetails details;
    details.loadFromJSON(element);
    if (!details.isValid() || !isTypeSupported(details.getType())) {
      continue;
    }
    const std::shared_ptr<ConnectionPoint> connectionPoint =
        findConnectionPoint(details.getConnectionPoint());
    if (!connectionPoint) {
      continue;
    }
    if (connectionPoint->hasDeviceConnection(details.getUniqueID())) {
      connectionPoint->updateDeviceConnection(details);
    } else {
      connectionPoint->addDeviceConnection(connectionPoint->createDeviceConnection(details),
                                           notifyNew);
    }
    changed = true;
  }
  return changed;
}

bool AbstractConnectionPointManager::handleDEL(const PellInternalMessage& message,
                                               ResponseList& /*responses*/) {
  DeleteMode mode = DeleteMode::None;
  if (const char* base = stringMember(message.viewBody(), "objectBase"); base != nullptr) {
    if (base == std::string_view(kConnectionPoint)) {
      mode = DeleteMode::ConnectionPoint;
    } else if (base == std::string_view(kDeviceConnection)) {
      mode = DeleteMode::DeviceConnection;
    } else {
      syslog(LOG_DEBUG, "ConnectedIPSManager::handleDEL objectBase not for me.\n");
      return false;
    }
  }
  bool changed = false;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, arrayMember(message.viewBody(), "objectName")) {
    if (cJSON_IsString(element) != 0) {
      changed = deleteElement(element->valuestring, mode) || changed;
    }
  }
  if (changed) {
    saveDescription();
  }
  return changed;
}

bool AbstractConnectionPointManager::deleteElement(const std::string& element, DeleteMode& mode) {
  const std::size_t dot = element.find('.');
  const std::string_view prefix = std::string_view(element).substr(0, dot);
  std::string uniqueID = element;
  if (dot != std::string::npos && prefix == kConnectionPoint) {
    mode = DeleteMode::ConnectionPoint;
    return deleteConnectionPoint(element.substr(dot + 1));
  }
  if (dot != std::string::npos && prefix == kDeviceConnection) {
    // While connection points are being deleted, even this names one.
    const bool namesConnectionPoint = mode == DeleteMode::ConnectionPoint;
    mode = DeleteMode::DeviceConnection;
    uniqueID.erase(0, dot + 1);
    return namesConnectionPoint ? deleteConnectionPoint(uniqueID)
                                : deleteDeviceConnection(uniqueID);
  }
  switch (mode) {
    case DeleteMode::ConnectionPoint:
      return deleteConnectionPoint(element);
    case DeleteMode::DeviceConnection:
      return deleteDeviceConnection(element);
    case DeleteMode::None:
      break;
  }
  return false;
}

bool AbstractConnectionPointManager::deleteConnectionPoint(const std::string& uniqueID) {
  std::shared_ptr<ConnectionPoint> removed;  // outlives the lock
  const Locked lock(lock_);
  const auto found = connectionPoints_.find(uniqueID);
  if (found == connectionPoints_.end() || !found->second->isDeletable()) {
    return false;
  }
  removed = found->second;
  removeConnectionPoint(removed);
  return true;
}

bool AbstractConnectionPointManager::deleteDeviceConnection(const std::string& uniqueID) {
  bool changed = false;
  const Locked lock(lock_);
  for (const auto& entry : connectionPoints_) {
    if (entry.second->removeDeviceConnection(uniqueID)) {
      syslog(LOG_INFO, "deviceConnection %s REMOVED from connectionPoint %s\n",
             nameForLog(uniqueID).c_str(), nameForLog(entry.second->getUniqueID()).c_str());
      changed = true;
    }
  }
  return changed;
}

}  // namespace valtor
