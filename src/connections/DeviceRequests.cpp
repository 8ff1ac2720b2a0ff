// The requests on "device" that an AbstractConnectionPointManager takes.

#include <functional>
#include <map>
#include <string_view>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/LineBudget.h"
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
  try {
    return handleRequest(message, responses);
  } catch (...) {
    noteBehind();  // it may have been cut short
    throw;
  }
}

bool AbstractConnectionPointManager::handleRequest(const PellInternalMessage& message,
                                                   ResponseList& responses) {
  // Every message of the bus comes by here: nothing is copied to tell it is not for us.
  const std::string_view path = message.header.path;
  if (path.substr(0, path.find('.')) != kDevice) {
    return false;
  }
  const LineBudget budget;
  switch (message.getKind()) {
    case MessageKind::GET:
      answerRoom_ = AnswerRoom();
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
  answerRoom_.take(value.get(), set_.size());
  JSONPtr param(cJSON_CreateObject());
  addMember(param.get(), name, std::move(value));
  responses.push_back(std::make_unique<RSPMessage>(message, nullptr, std::move(param)));
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
    if (!hasRoomForAnswer(message)) {
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
  set_.forEach([&](ConnectionPoint& connectionPoint) {
    taken = connectionPoint.handleDeviceParam(uniqueID, message) || taken;
  });
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
    saveChange();
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
  saveChange();
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

// A request may name millions of devices, so none is searched in every connection point.
class AbstractConnectionPointManager::DeviceIndex {
 public:
  explicit DeviceIndex(const ConnectionPointSet& set) : set_(set) {}

  // Removes the device connection from every connection point that has it; whether any had.
  bool remove(std::string_view uniqueID) {
    if (!std::exchange(built_, true)) {
      build();
    }
    const auto found = holders_.find(uniqueID);
    if (found == holders_.end()) {
      return false;
    }
    bool removed = false;
    for (const auto& holder : found->second) {
      removed = removeFrom(*holder, found->first) || removed;
    }
    holders_.erase(found);
    return removed;
  }

 private:
  void build() {
    for (const auto& connectionPoint : set_.all()) {
      for (std::string& uniqueID : connectionPoint->deviceConnectionIDs()) {
        holders_[std::move(uniqueID)].push_back(connectionPoint);
      }
    }
  }

  static bool removeFrom(ConnectionPoint& holder, const std::string& uniqueID) {
    if (!holder.removeDeviceConnection(uniqueID)) {
      return false;
    }
    if (LineBudget::spend()) {
      syslog(LOG_INFO, "deviceConnection %s REMOVED from connectionPoint %s\n",
             nameForLog(uniqueID).c_str(), nameForLog(holder.getUniqueID()).c_str());
    }
    return true;
  }

  const ConnectionPointSet& set_;
  bool built_ = false;
  // In the order of the connection points' unique IDs.
  std::map<std::string, ConnectionPointSet::List, std::less<>> holders_;
};

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
  DeviceIndex devices(set_);
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, arrayMember(message.viewBody(), "objectName")) {
    if (cJSON_IsString(element) != 0) {
      changed = deleteElement(element->valuestring, mode, devices) || changed;
    }
  }
  if (changed) {
    saveChange();
  }
  return changed;
}

bool AbstractConnectionPointManager::deleteElement(std::string_view element, DeleteMode& mode,
                                                   DeviceIndex& devices) {
  const std::size_t dot = element.find('.');
  const std::string_view prefix = element.substr(0, dot);
  if (dot != std::string_view::npos && prefix == kConnectionPoint) {
    mode = DeleteMode::ConnectionPoint;
    return deleteConnectionPoint(element.substr(dot + 1));
  }
  if (dot != std::string_view::npos && prefix == kDeviceConnection) {
    // While connection points are being deleted, even this names one.
    const bool namesConnectionPoint = mode == DeleteMode::ConnectionPoint;
    mode = DeleteMode::DeviceConnection;
    const std::string_view uniqueID = element.substr(dot + 1);
    return namesConnectionPoint ? deleteConnectionPoint(uniqueID) : devices.remove(uniqueID);
  }
  switch (mode) {
    case DeleteMode::ConnectionPoint:
      return deleteConnectionPoint(element);
    case DeleteMode::DeviceConnection:
      return devices.remove(element);
    case DeleteMode::None:
      break;
  }
  return false;
}

bool AbstractConnectionPointManager::deleteConnectionPoint(std::string_view uniqueID) {
  return set_.removeDeletable(std::string(uniqueID)) != nullptr;
}

}  // namespace valtor
