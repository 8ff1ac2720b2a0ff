#include "peers/RemoteValtorConnectionPointManager.h"

#include <utility>

#include "app/util/Immortal.h"
#include "app/util/Mutex.h"
#include "peers/RemoteValtorConnectionPoint.h"
#include "peers/ValtorRouterPeerManager.h"

namespace valtor {

namespace {

// What the manager lists as its own interface.
constexpr const char* kDefaultAddress = "192.168.1.2";
constexpr int32_t kDefaultPort = 15000;

// The managers that live, for describeRouters(). Its lock is held while one is asked, so that none
// goes before what it has listed.
struct Managers {
  Mutex lock;
  std::vector<const RemoteValtorConnectionPointManager*> list VALTOR_GUARDED_BY(lock);
};

Managers& managers() {
  static Immortal<Managers> instance;
  return *instance;
}

}  // namespace

RemoteValtorConnectionPointManager::RemoteValtorConnectionPointManager(
    const std::string& name, const std::string& type, IPellInternalClient& busClient,
    bool rejectLoopback)
    : ConnectionPointManager(name, type, busClient), rejectLoopback_(rejectLoopback) {
  auto phy = std::make_unique<TCPPhy>();
  phy->setIPAddress(kDefaultAddress);
  phy->setPort(kDefaultPort);
  phy->setServer(1);
  addPhy(std::move(phy));
  Managers& all = managers();
  const Locked lock(all.lock);
  all.list.push_back(this);
}

RemoteValtorConnectionPointManager::~RemoteValtorConnectionPointManager() {
  stopCleanupThread();
  Managers& all = managers();
  const Locked lock(all.lock);
  std::erase(all.list, this);
}

std::vector<RouterDescription> describeRouters() {
  std::vector<RouterDescription> routers;
  Managers& all = managers();
  const Locked lock(all.lock);
  for (const RemoteValtorConnectionPointManager* manager : all.list) {
    for (const auto& point : manager->connectionPoints().snapshot()) {
      RouterDescription router{point->getName(),   point->getUniqueID(), "", 0,
                               point->isEnabled(), point->enabledSince()};
      if (const auto phy = point->firstTCPPhy()) {
        router.address = phy->getIPAddress();
        router.port = phy->getPort();
      }
      routers.push_back(std::move(router));
    }
  }
  return routers;
}

unsigned countUnsavedFiles() {
  unsigned count = 0;
  Managers& all = managers();
  const Locked lock(all.lock);
  for (const RemoteValtorConnectionPointManager* manager : all.list) {
    count += manager->unsavedFiles();
  }
  return count;
}

bool RemoteValtorConnectionPointManager::handleMessage(const PellInternalMessage& message,
                                                       ResponseList& responses) {
  const bool taken = ConnectionPointManager::handleMessage(message, responses);
  if (const auto peers = routerPeerManager()) {
    peers->forwardToPeers(message);
  }
  return taken;
}

std::unique_ptr<ConnectionPoint> RemoteValtorConnectionPointManager::createConnectionPoint(
    const cJSON* item) {
  auto connectionPoint =
      std::make_unique<RemoteValtorConnectionPoint>(busClient(), *this, rejectLoopback_);
  if (connectionPoint->loadFromJSON(item) != 0) {
    return nullptr;
  }
  const auto phy = connectionPoint->firstTCPPhy();
  if (rejectLoopback_ && phy && isLoopback(*phy)) {
    return nullptr;
  }
  busClient().subscribe("device*");
  return connectionPoint;
}

}  // namespace valtor
