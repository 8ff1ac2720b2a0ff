#include "peers/ValtorRouterPeerManager.h"

#include <utility>

#include "app/util/Immortal.h"
#include "app/util/Mutex.h"
#include "peers/ForwardingFilters.h"

namespace valtor {

namespace {

struct Slot {
  Mutex lock;
  std::shared_ptr<ValtorRouterPeerManager> manager VALTOR_GUARDED_BY(lock);
};

Slot& theSlot() {
  static Immortal<Slot> slot;
  return *slot;
}

}  // namespace

ValtorRouterPeerManager::ValtorRouterPeerManager(const std::string& name,
                                                 IPellaMessageForwarder* forwarder)
    : ValtorNodeConnectionPointManager(name, forwarder) {}

ValtorRouterPeerManager::~ValtorRouterPeerManager() = default;

FilterResult ValtorRouterPeerManager::filterToPeer(const DispatcherPeerClient& peer,
                                                   const PellInternalMessage& message) const {
  return routerMasterToPeer(message, peer.dbRequestHost());
}

PellInternalClient::Timing ValtorRouterPeerManager::ownerTiming() {
  constexpr std::chrono::seconds kWindow{1};
  const auto now = std::chrono::steady_clock::now();
  if (now - attemptsBegin_ > kWindow) {
    attemptsBegin_ = now;
    attemptsTook_ = {};
  }
  PellInternalClient::Timing timing = peerTiming_;
  if (attemptsTook_ >= kOwnerAttempts) {
    timing.ownerAttempt = std::chrono::milliseconds(0);
  }
  return timing;
}

void ValtorRouterPeerManager::noteOwnerAttempt(std::chrono::steady_clock::duration took) {
  attemptsTook_ += took;
}

std::shared_ptr<ValtorRouterPeerManager> routerPeerManager() {
  Slot& slot = theSlot();
  const Locked lock(slot.lock);
  return slot.manager;
}

void setRouterPeerManager(std::shared_ptr<ValtorRouterPeerManager> manager) {
  Slot& slot = theSlot();
  {
    const Locked lock(slot.lock);
    slot.manager.swap(manager);
  }
  // The old manager goes here, if it goes: its peers' threads must not meet the slot's lock.
}

}  // namespace valtor
