#include "peers/DispatcherPeerClient.h"

#include <cstdio>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/LineBudget.h"
#include "app/util/OwnedJSON.h"
#include "bus/message/MessageIdentifier.h"
#include "bus/message/PellInternalMessage.h"
#include "peers/ForwardingFilters.h"

namespace valtor {

namespace {

// What a load that misses a member returns.
int lacks(const char* member) {
  if (LineBudget::spend()) {
    syslog(LOG_WARNING, "DispatcherPeerClient::loadFromJSON - %s not specified.\n", member);
  }
  return -1;
}

}  // namespace

DispatcherPeerClient::DispatcherPeerClient() {
  setTiming(descriptionTiming());
  setReceiveAll(true);
  addSubscription("device*");
  addSubscription("controller*");
}

DispatcherPeerClient::DispatcherPeerClient(std::string host, int32_t port, std::string busName)
    : PellInternalClient(std::move(host), port, std::move(busName), kSendRetryBudget) {
  setTiming(hostTiming());
  setReceiveAll(true);
  addSubscription("controller*");
  addSubscription("device*");
}

DispatcherPeerClient::~DispatcherPeerClient() { stopForDestruction(); }

PellInternalClient::Timing DispatcherPeerClient::descriptionTiming() {
  Timing timing;
  timing.ownerAttempt = std::chrono::milliseconds(50);
  return timing;
}

PellInternalClient::Timing DispatcherPeerClient::hostTiming() {
  Timing timing = descriptionTiming();
  timing.receiveTimeout = std::chrono::seconds(1);
  return timing;
}

int DispatcherPeerClient::getConnID() {
  std::printf("DispatcherPeerClient needs ID\n");
  return kConnID;
}

bool DispatcherPeerClient::isLocalBusClient() { return false; }

int DispatcherPeerClient::onMessage(const PellInternalMessage& message) {
  PellInternalClient::onMessage(message);

  FilterResult result = filterToMaster(message);
  IPellaMessageForwarder* const forwarder = forwarder_;
  if (result.pass && forwarder == nullptr) {
    result = FilterResult::blocked("noForwarder");
  }
  noteToMaster(message, result);
  if (!result.pass) {
    traceBlocked("peer->master", message, result.rule);
    return -1;
  }
  // First, so that the answer to this very request finds its host when it comes back on the
  // master's thread.
  if (message.getKind() == MessageKind::GET && message.header.path == "db") {
    noteDatabaseRequest(message);
  }
  forwarder->forwardMessage(message);
  return 0;
}

void DispatcherPeerClient::noteToMaster(const PellInternalMessage& message,
                                        const FilterResult& result) {
  if (result.pass) {
    toMaster_.add(message.receivedBytes());
  } else {
    blockedToMaster_.add(result.rule);
  }
  if (watch_ == nullptr) {
    return;
  }
  justWatch([&] {
    if (result.pass) {
      watch_->crossings.add(Direction::ToController, message.getKind(), message.header.path,
                            message.receivedBytes());
      watch_->loops.note(message, this, [this] { return linkName(); });
    }
    show(Direction::ToController, message, result);
  });
}

void DispatcherPeerClient::noteToPeer(const PellInternalMessage& message,
                                      const FilterResult& result) {
  if (!result.pass) {
    blockedToPeer_.add(result.rule);
  }
  if (watch_ != nullptr) {
    justWatch([&] { show(Direction::ToRouters, message, result); });
  }
}

void DispatcherPeerClient::show(Direction direction, const PellInternalMessage& message,
                                const FilterResult& result) {
  if (watch_->tap.isFollowed()) {
    watch_->tap.offer(uniqueID(), direction, message, result);
  }
}

DispatcherPeerClient::BridgeFigures DispatcherPeerClient::bridgeFigures() const {
  return {blockedToPeer_.figures(), blockedToMaster_.figures(), toMaster_.figures()};
}

FilterResult DispatcherPeerClient::filterToMaster(const PellInternalMessage& message) const {
  return nodePeerToMaster(message);
}

void DispatcherPeerClient::noteDatabaseRequest(const PellInternalMessage& message) {
  std::string host = hostOfIdentifier(message.getUniqueId());
  const Locked lock(dbRequestHostLock_);
  dbRequestHost_ = std::move(host);
}

void DispatcherPeerClient::forgetDatabaseRequest() {
  const Locked lock(dbRequestHostLock_);
  dbRequestHost_.clear();
}

std::string DispatcherPeerClient::dbRequestHost() const {
  const Locked lock(dbRequestHostLock_);
  return dbRequestHost_;
}

void DispatcherPeerClient::updateFrom(DispatcherPeerClient& other) {
  if (&other == this) {
    return;
  }
  std::string type;
  std::string uniqueID;
  std::string name;
  PhyList phys;
  {
    const Locked lock(other.descriptionLock_);
    type = other.type_;
    uniqueID = other.uniqueID_;
    name = other.descriptionName_;
    phys.swap(other.phys_);
  }
  const Locked lock(descriptionLock_);
  descriptionName_ = std::move(name);
  phys_ = std::move(phys);
  type_ = std::move(type);
  uniqueID_ = std::move(uniqueID);
}

int DispatcherPeerClient::loadFromJSON(const cJSON* item) {
  syslog(LOG_DEBUG, "%s: %s\n", "virtual int DispatcherPeerClient::loadFromJSON(cJSON*)",
         quotedForLog(printJSON(item, true).c_str()).c_str());
  const char* const type = stringMember(item, "type");
  if (type == nullptr) {
    return lacks("type");
  }
  {
    const Locked lock(descriptionLock_);
    type_ = type;
  }
  const cJSON* const phys = cJSON_GetObjectItem(item, "phy");
  if (phys == nullptr) {
    return lacks("phy");
  }
  if (!loadPhys(phys)) {
    if (LineBudget::spend()) {
      syslog(LOG_WARNING, "DispatcherPeerClient::loadFromJSON - no valid phy found.\n");
    }
    return -1;
  }
  const char* const name = stringMember(item, "name");
  if (name == nullptr) {
    return lacks("name");
  }
  {
    const Locked lock(descriptionLock_);
    descriptionName_ = name;
  }
  const char* const uniqueID = stringMember(item, "uniqueID");
  if (uniqueID == nullptr) {
    return lacks("uniqueID");
  }
  setUniqueID(uniqueID);
  return 0;
}

// Whether at least one phy was accepted. Accepted ones replace those of an earlier load.
bool DispatcherPeerClient::loadPhys(const cJSON* array) {
  PhyList accepted;
  const cJSON* element = nullptr;
  if (cJSON_IsArray(array) != 0) {
    cJSON_ArrayForEach(element, array) {
      auto phy = ConnectionPointPhy::createFromJSON(element);
      if (phy == nullptr) {
        if (LineBudget::spend()) {
          syslog(LOG_WARNING, "DispatcherPeerClient::loadFromJSON - invalid phy details.\n");
        }
      } else if (setEndpointFromPhy(*phy)) {
        accepted.push_back(std::move(phy));
      }
    }
  }
  if (accepted.empty()) {
    return false;
  }
  const Locked lock(descriptionLock_);
  phys_ = std::move(accepted);
  return true;
}

JSONPtr DispatcherPeerClient::toJSON() const {
  const bool connected = isConnected();
  JSONPtr object(cJSON_CreateObject());
  JSONPtr phys(cJSON_CreateArray());
  const Locked lock(descriptionLock_);
  for (const auto& phy : phys_) {
    addElement(phys.get(), phy->toJSON());
  }
  cJSON_AddStringToObject(object.get(), "type", type_.c_str());
  cJSON_AddStringToObject(object.get(), "name", descriptionName_.c_str());
  cJSON_AddStringToObject(object.get(), "uniqueID", uniqueID_.c_str());
  addMember(object.get(), "phy", std::move(phys));
  cJSON_AddBoolToObject(object.get(), "enabled", enabled_ ? 1 : 0);
  cJSON_AddBoolToObject(object.get(), "connected", connected ? 1 : 0);
  return object;
}

std::string DispatcherPeerClient::type() const {
  const Locked lock(descriptionLock_);
  return type_;
}

std::string DispatcherPeerClient::uniqueID() const {
  const Locked lock(descriptionLock_);
  return uniqueID_;
}

void DispatcherPeerClient::setUniqueID(const std::string& uniqueID) {
  const Locked lock(descriptionLock_);
  uniqueID_ = uniqueID;
}

}  // namespace valtor
