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
