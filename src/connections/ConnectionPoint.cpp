#include "connections/ConnectionPoint.h"

#include <cstddef>
#include <syslog.h>
#include <utility>

#include "app/util/Console.h"
#include "app/util/ErrnoText.h"
#include "app/util/LineBudget.h"
#include "bus/message/RequestMessages.h"
#include "connections/AbstractConnectionPointManager.h"
#include "router/DeviceParamList.h"

namespace valtor {

namespace {

constexpr const char* kDevicePath = "device";
constexpr const char* kParam = "param";
constexpr const char* kParamDelete = "paramDelete";
constexpr const char* kDeviceConnection = "deviceConnection";
constexpr std::size_t kMaxPhys = 16;  // of which the first counts

// What a load that misses a member returns.
int lacks(const char* member) {
  if (LineBudget::spend()) {
    syslog(LOG_WARNING, "ConnectionPointDetails::loadFromJSON - %s not specified.\n", member);
  }
  return -1;
}

bool isNamed(const ConnectionPointPhy& phy, PhyTypeIndex type) {
  return phy.getType() == PhyTypeNames[type];
}

}  // namespace

ConnectionPoint::ConnectionPoint(std::string type, IPellInternalClient& sender,
                                 AbstractConnectionPointManager& manager)
    : sender_(sender), manager_(manager), type_(std::move(type)) {}

ConnectionPoint::~ConnectionPoint() {
  if (LineBudget::spendTrace()) {
    traceLine("%s - %p\n", "~ConnectionPoint", static_cast<void*>(this));
  }
  const Locked lock(deviceLock_);
  for (const auto& entry : deviceConnections_) {
    entry.second->attach(nullptr, nullptr);
  }
}

// --- Description ---------------------------------------------------------------------------------

int ConnectionPoint::loadFromJSON(const cJSON* item) {
  const Locked lock(descriptionLock_);
  const char* type = stringMember(item, "type");
  if (type == nullptr) {
    return lacks("type");
  }
  type_ = type;
  if (loadPhys(item) != 0) {
    return -1;
  }
  const char* name = stringMember(item, "name");
  if (name == nullptr) {
    return lacks("name");
  }
  name_ = name;
  const char* uniqueID = stringMember(item, "uniqueID");
  if (uniqueID == nullptr) {
    return lacks("uniqueID");
  }
  uniqueID_ = uniqueID;
  if (const cJSON* enabled = cJSON_GetObjectItem(item, "enabled"); enabled != nullptr) {
    setEnabled(cJSON_IsTrue(enabled) != 0);
  }
  return 0;
}

int ConnectionPoint::loadPhys(const cJSON* item) {
  const cJSON* descriptions = cJSON_GetObjectItem(item, "phy");
  if (descriptions == nullptr) {
    return lacks("phy");
  }
  // An object's members must not be taken for elements.
  const cJSON* elements = cJSON_IsArray(descriptions) != 0 ? descriptions : nullptr;
  const cJSON* element = nullptr;
  cJSON_ArrayForEach(element, elements) {
    if (phys_.size() == kMaxPhys) {
      if (LineBudget::spend()) {
        syslog(LOG_WARNING,
               "ConnectionPointDetails::loadFromJSON - more than %zu phys, the rest is ignored.\n",
               kMaxPhys);
      }
      break;
    }
    std::unique_ptr<ConnectionPointPhy> phy = ConnectionPointPhy::createFromJSON(element);
    if (phy) {
      phys_.push_back(std::move(phy));
    } else if (LineBudget::spend()) {
      syslog(LOG_WARNING, "ConnectionPointDetails::loadFromJSON - invalid phy details.\n");
    }
  }
  if (phys_.empty()) {
    if (LineBudget::spend()) {
      syslog(LOG_WARNING, "ConnectionPointDetails::loadFromJSON - no valid phy found.\n");
    }
    return -1;
  }
  return 0;
}

JSONPtr ConnectionPoint::toJSON() const {
  const std::string type = getType();
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "type", type.c_str());
  {
    const Locked lock(descriptionLock_);
    cJSON_AddStringToObject(object.get(), "name", name_.c_str());
    cJSON_AddStringToObject(object.get(), "uniqueID", uniqueID_.c_str());
    JSONPtr phys(cJSON_CreateArray());
    for (const auto& phy : phys_) {
      addElement(phys.get(), phy->toJSON());
    }
    addMember(object.get(), "phy", std::move(phys));
  }
  cJSON_AddBoolToObject(object.get(), "enabled", isEnabled());
  cJSON_AddBoolToObject(object.get(), "connected", isConnected());
  cJSON_AddBoolToObject(object.get(), "showInUI", showInUI());
  return object;
}

std::string ConnectionPoint::getName() const {
  const Locked lock(descriptionLock_);
  return name_;
}

void ConnectionPoint::setName(const std::string& name) {
  const Locked lock(descriptionLock_);
  name_ = name;
}

std::string ConnectionPoint::getType() const {
  const Locked lock(descriptionLock_);
  return type_;
}

std::string ConnectionPoint::getUniqueID() const {
  const Locked lock(descriptionLock_);
  return uniqueID_;
}

bool ConnectionPoint::showInUI() const { return true; }

bool ConnectionPoint::isServerConnectionPoint() const {
  const Locked lock(descriptionLock_);
  return hasServerPhy();
}

bool ConnectionPoint::hasServerPhy() const {
  if (phys_.empty() || (!isNamed(*phys_.front(), kTCPPhy) && !isNamed(*phys_.front(), kUDPPhy))) {
    return false;
  }
  const auto* phy = dynamic_cast<const IPPhy*>(phys_.front().get());
  return phy != nullptr && phy->getServer() == 0;
}

std::optional<TCPPhy> ConnectionPoint::firstTCPPhy() const {
  const Locked lock(descriptionLock_);
  if (phys_.empty() || !isNamed(*phys_.front(), kTCPPhy)) {
    return std::nullopt;
  }
  const auto* phy = dynamic_cast<const TCPPhy*>(phys_.front().get());
  return phy != nullptr ? std::optional<TCPPhy>(*phy) : std::nullopt;
}

void ConnectionPoint::clearPhys() {
  const Locked lock(descriptionLock_);
  phys_.clear();
  recount();
}

void ConnectionPoint::countIn(std::atomic<unsigned>* number) {
  const Locked lock(descriptionLock_);
  if (counted_) {
    --*number_;
    counted_ = false;
  }
  number_ = number;
  recount();
}

void ConnectionPoint::recount() {
  if (number_ == nullptr) {
    return;
  }
  const bool counts = connected_ && hasServerPhy();
  if (counts != std::exchange(counted_, counts)) {
    counts ? ++*number_ : --*number_;
  }
}

ConnectionPoint::Identity ConnectionPoint::takeIdentity() {
  const Locked lock(descriptionLock_);
  Identity identity{std::exchange(phys_, {}), std::exchange(uniqueID_, {})};
  recount();
  return identity;
}

bool ConnectionPoint::hasEqualPhys(const Phys& phys) const {
  const Locked lock(descriptionLock_);
  if (phys.size() != phys_.size()) {
    return false;
  }
  for (std::size_t i = 0; i < phys.size(); ++i) {
    if (!phys[i]->isEqual(phys_[i].get())) {
      return false;
    }
  }
  return true;
}

void ConnectionPoint::update(ConnectionPoint& from) {
  setName(from.getName());
  std::string type = from.getType();
  Identity identity = from.takeIdentity();
  const bool moved = !hasEqualPhys(identity.phys);
  if (moved) {
    // Without the description lock: this waits for the thread that may just want it.
    disconnectBecause("moved");
  }
  {
    const Locked lock(descriptionLock_);
    if (moved) {
      phys_.swap(identity.phys);
    }
    type_ = std::move(type);
    uniqueID_ = std::move(identity.uniqueID);
    recount();
  }
  setEnabled(from.isEnabled());
}

void ConnectionPoint::setEnabled(bool enabled) {
  if (enabled_.exchange(enabled) != enabled) {
    enabledSince_ = std::chrono::system_clock::now();
  }
}

void ConnectionPoint::markForDeletion(bool marked) {
  if (!deletable_) {
    return;
  }
  syslog(LOG_DEBUG, "%s marked for deletion val=%d.\n", nameForLog(getUniqueID()).c_str(),
         marked ? 1 : 0);
  markedForDeletion_ = marked;
}

bool ConnectionPoint::isMarkedForDeletion() const { return deletable_ && markedForDeletion_; }

// --- Connection ----------------------------------------------------------------------------------

void ConnectionPoint::setConnected(bool connected) {
  syslog(LOG_DEBUG, "%s, %s = %d\n", "virtual void ConnectionPoint::setConnected(bool)",
         nameForLog(getUniqueID()).c_str(), connected ? 1 : 0);
  const bool repeats = unannounced_.exchange(false);
  if (connected_.exchange(connected) == connected && !repeats) {
    return;
  }
  {
    const Locked lock(descriptionLock_);
    recount();
  }
  try {
    {
      const Locked lock(notificationLock_);
      applyOnline(connected_);
    }
    notifyParam(connected && connected_);
  } catch (...) {
    unannounced_ = true;
    throw;
  }
}

bool ConnectionPoint::isConnected() const { return connected_; }

int ConnectionPoint::connect() { return 0; }

void ConnectionPoint::disconnect() { setConnected(false); }

void ConnectionPoint::disconnectBecause(const char* reason) {
  endReason_ = reason;
  ending_ = true;
  disconnect();
  ending_ = unannounced_.load();
  if (ending_) {
    manager_.noteBehind();
  }
}

// --- Announcements -------------------------------------------------------------------------------

void ConnectionPoint::notifyParam(bool /*connected*/) {
  if (getUniqueID().empty()) {
    return;
  }
  const Locked lock(notificationLock_);
  sendSelf(kParam);
}

void ConnectionPoint::notifyDeleted() {
  const Locked lock(notificationLock_);
  sendSelf(kParamDelete);
}

void ConnectionPoint::sendSelf(const char* key) {
  JSONPtr array(cJSON_CreateArray());
  addElement(array.get(), toJSON());
  sendNotification(key, isServerConnectionPoint() ? "serverConnectionPoint" : "connectionPoint",
                   std::move(array));
}

void ConnectionPoint::sendDeviceConnections(const char* key, JSONPtr array) {
  if (array && array->child != nullptr) {
    sendNotification(key, kDeviceConnection, std::move(array));
  }
}

void ConnectionPoint::sendNotification(const char* key, const char* objectName, JSONPtr array) {
  JSONPtr value(cJSON_CreateObject());
  addMember(value.get(), objectName, std::move(array));
  sender_.sendMessage(NOTMessage(kDevicePath, key, std::move(value)));
}

// --- Device connections --------------------------------------------------------------------------

JSONPtr ConnectionPoint::deviceConnectionsToJSON() const {
  JSONPtr array(cJSON_CreateArray());
  const Locked lock(deviceLock_);
  for (const auto& entry : deviceConnections_) {
    addElement(array.get(), entry.second->toJSON());
  }
  return array;
}

int ConnectionPoint::addDeviceConnectionsTo(cJSON* array, bool gone) const {
  const Locked lock(deviceLock_);
  for (const auto& entry : deviceConnections_) {
    addElement(array, entry.second->toStatusJSON(gone));
  }
  return static_cast<int>(deviceConnections_.size());
}

ConnectionPoint::DevicePtr ConnectionPoint::findDeviceConnection(
    const std::string& uniqueID) const {
  const Locked lock(deviceLock_);
  const auto found = deviceConnections_.find(uniqueID);
  return found != deviceConnections_.end() ? found->second : nullptr;
}

bool ConnectionPoint::hasDeviceConnection(const std::string& uniqueID) const {
  return findDeviceConnection(uniqueID) != nullptr;
}

std::vector<std::string> ConnectionPoint::deviceConnectionIDs() const {
  std::vector<std::string> uniqueIDs;
  const Locked lock(deviceLock_);
  for (const auto& entry : deviceConnections_) {
    uniqueIDs.push_back(entry.first);
  }
  return uniqueIDs;
}

void ConnectionPoint::addDeviceConnection(const DevicePtr& deviceConnection, bool notify) {
  if (!deviceConnection) {
    return;
  }
  const std::string uniqueID = deviceConnection->getUniqueID();
  DevicePtr replaced;  // destroyed after the locks are released
  const Locked notification(notificationLock_);
  {
    const Locked lock(deviceLock_);
    replaced = std::exchange(deviceConnections_[uniqueID], deviceConnection);
    if (replaced) {
      replaced->attach(nullptr, nullptr);
    }
    deviceConnection->attach(this, &sender_);
  }
  sender_.subscribe(std::string(kDevicePath) + "." + uniqueID);
  announceSeen(*deviceConnection, notify);
}

void ConnectionPoint::notifyDeviceConnection(AbstractDeviceConnection& deviceConnection,
                                             bool notify) {
  const Locked lock(notificationLock_);
  announceSeen(deviceConnection, notify);
}

void ConnectionPoint::announceSeen(AbstractDeviceConnection& deviceConnection, bool notify) {
  deviceConnection.markSeen();
  if (!notify) {
    return;
  }
  JSONPtr array(cJSON_CreateArray());
  addElement(array.get(), deviceConnection.toJSON());
  sendDeviceConnections(kParam, std::move(array));
}

bool ConnectionPoint::updateDeviceConnection(const DeviceConnectionDetails& details) {
  // Over the whole: a report that comes in between would be announced and then overwritten.
  const Locked lock(notificationLock_);
  const DevicePtr deviceConnection = findDeviceConnection(details.getUniqueID());
  if (!deviceConnection) {
    return false;
  }
  const bool wasOnline = deviceConnection->isOnline();
  deviceConnection->update(details);
  announceSeen(*deviceConnection, !wasOnline);
  return !wasOnline;
}

bool ConnectionPoint::removeDeviceConnection(const std::string& uniqueID) {
  DevicePtr removed;  // destroyed after the locks are released
  const Locked notification(notificationLock_);
  {
    const Locked lock(deviceLock_);
    const auto found = deviceConnections_.find(uniqueID);
    if (found == deviceConnections_.end()) {
      return false;
    }
    removed = std::move(found->second);
    deviceConnections_.erase(found);
  }
  JSONPtr array(cJSON_CreateArray());
  addElement(array.get(), renderGone(*removed));
  sendDeviceConnections(kParamDelete, std::move(array));
  return true;
}

JSONPtr ConnectionPoint::renderGone(AbstractDeviceConnection& deviceConnection) {
  deviceConnection.setOnline(false);
  JSONPtr status = deviceConnection.toStatusJSON(true);
  deviceConnection.attach(nullptr, nullptr);
  return status;
}

void ConnectionPoint::removeAllDeviceConnections() {
  DeviceConnections removed;  // destroyed after the locks are released
  const Locked notification(notificationLock_);
  {
    const Locked lock(deviceLock_);
    removed.swap(deviceConnections_);
  }
  JSONPtr array(cJSON_CreateArray());
  for (const auto& entry : removed) {
    addElement(array.get(), renderGone(*entry.second));
    logOffline(*entry.second);
  }
  sendDeviceConnections(kParamDelete, std::move(array));
}

void ConnectionPoint::logOffline(const AbstractDeviceConnection& deviceConnection) {
  if (LineBudget::spend()) {
    const DeviceConnectionDetails details = deviceConnection.getDetails();
    syslog(LOG_INFO, "Device %s(%s) is offline.\n", nameForLog(details.getName()).c_str(),
           nameForLog(details.getUniqueID()).c_str());
  }
}

void ConnectionPoint::setDevicesOnline(bool online) {
  const Locked lock(notificationLock_);
  applyOnline(online);
}

void ConnectionPoint::applyOnline(bool online) {
  JSONPtr array(cJSON_CreateArray());
  {
    const Locked lock(deviceLock_);
    for (const auto& entry : deviceConnections_) {
      entry.second->setOnline(online);
      addElement(array.get(), entry.second->toJSON());
      if (!online) {
        logOffline(*entry.second);
      }
    }
  }
  sendDeviceConnections(kParam, std::move(array));
}

bool ConnectionPoint::handleDeviceParam(const std::string& uniqueID,
                                        const PellInternalMessage& message) {
  if (message.getKind() != MessageKind::SET) {
    return false;
  }
  const DevicePtr deviceConnection = findDeviceConnection(uniqueID);
  if (!deviceConnection || cJSON_GetObjectItem(message.viewBody(), kParam) == nullptr) {
    return false;
  }
  deviceConnection->setParams(DeviceParamList(uniqueID, message.viewBody()));
  return true;
}

}  // namespace valtor
