#include "peers/ValtorRouterPeerConnection.h"

#include <string>
#include <utility>

#include "app/util/ErrnoText.h"
#include "peers/ForwardingFilters.h"
#include "peers/RemoteValtorConnectionPoint.h"

namespace valtor {

ValtorRouterPeerConnection::ValtorRouterPeerConnection(std::string host, int32_t port,
                                                       std::string busName)
    : DispatcherPeerClient(std::move(host), port, std::move(busName)) {
  for (const char* const path : {"db", "route", "controller", "mdxi.system"}) {
    addSubscription(path);
  }
}

ValtorRouterPeerConnection::~ValtorRouterPeerConnection() { stopForDestruction(); }

void ValtorRouterPeerConnection::onConnectionStateChanged(int state, const std::string& reason) {
  DispatcherPeerClient::onConnectionStateChanged(state, reason);
  const Locked lock(ownerLock_);
  reportState();
}

// Two reports may overtake each other on their way here, so what is passed on is the state as it is
// under the lock, not the state that a caller saw; and of a link only what a report follows that
// could take it back.
void ValtorRouterPeerConnection::reportState() {
  if (owner_ != nullptr) {
    owner_->setConnected(isAnnouncedUp());
  }
}

std::string ValtorRouterPeerConnection::shownName() const {
  const Locked lock(ownerLock_);
  return owner_ != nullptr ? owner_->getName() : lastName_;
}

std::string ValtorRouterPeerConnection::linkName() const {
  return "Router " + nameForLog(shownName()) + " (" + nameForLog(uniqueID()) + ") at " +
         nameForLog(host()) + ":" + std::to_string(port());
}

FilterResult ValtorRouterPeerConnection::filterToMaster(const PellInternalMessage& message) const {
  return routerPeerToMaster(message);
}

bool ValtorRouterPeerConnection::setOwner(RemoteValtorConnectionPoint& owner) {
  const Locked lock(ownerLock_);
  if (abandoned_) {
    return false;
  }
  if (owner_ != nullptr && owner_ != &owner) {
    owner_->setConnected(false);
  }
  owner_ = &owner;
  reportState();
  return true;
}

bool ValtorRouterPeerConnection::clearOwner(const RemoteValtorConnectionPoint& owner) {
  const Locked lock(ownerLock_);
  if (owner_ != &owner) {
    return false;
  }
  lastName_ = owner.getName();
  owner_ = nullptr;
  abandoned_ = true;
  return true;
}

bool ValtorRouterPeerConnection::isOwnedBy(const RemoteValtorConnectionPoint& owner) const {
  const Locked lock(ownerLock_);
  return owner_ == &owner;
}

}  // namespace valtor
