#include "peers/RemoteValtorConnectionPointManager.h"

#include <utility>

#include "peers/RemoteValtorConnectionPoint.h"
#include "peers/ValtorRouterPeerManager.h"

namespace valtor {

namespace {

// What the manager lists as its own interface.
constexpr const char* kDefaultAddress = "192.168.1.2";
constexpr int32_t kDefaultPort = 15000;

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
}

RemoteValtorConnectionPointManager::~RemoteValtorConnectionPointManager() { stopCleanupThread(); }

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
