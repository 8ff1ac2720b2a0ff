#pragma once

#include <string>

#include "app/util/OwnedJSON.h"
#include "peers/MasterBus.h"
#include "peers/RemoteValtorConnectionPoint.h"
#include "peers/RemoteValtorConnectionPointManager.h"
#include "peers/ValtorRouterPeerConnection.h"
#include "peers/ValtorRouterPeerManager.h"
#include "support/ConsoleCapture.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/ScriptedNode.h"
#include "support/TemporaryFolder.h"

namespace valtor::test {

// The description of a remote router; "server" true makes it a client of ours to reach.
inline std::string routerText(const std::string& id, const std::string& address, int port,
                              const std::string& name = "router") {
  return "{\"type\":\"valtor\",\"name\":\"" + name + "\",\"uniqueID\":\"" + id +
         "\",\"phy\":[{\"type\":\"tcp\",\"ipAddress\":\"" + address +
         "\",\"port\":" + std::to_string(port) + ",\"server\":true}]}";
}
inline std::string routerText(const std::string& id, const ScriptedNode& node) {
  return routerText(id, node.address(), node.port());
}

// A master bus, the process's router peer manager with quick reconnections, and a manager of remote
// routers on top, which is gone before the slot is cleared.
class RemoteRouters {
 public:
  RemoteRouters() {
    folder_.becomePathPrefix();
    auto peers = std::make_shared<ValtorRouterPeerManager>("routers", &bus);
    auto timing = DispatcherPeerClient::hostTiming();
    timing.reconnectDelay = std::chrono::milliseconds(1);
    peers->setPeerTiming(timing);
    setRouterPeerManager(peers);
    manager = std::make_unique<RemoteValtorConnectionPointManager>("valtor", "valtor", bus);
  }
  ~RemoteRouters() {
    manager.reset();
    setRouterPeerManager(nullptr);
  }
  RemoteRouters(const RemoteRouters&) = delete;
  RemoteRouters& operator=(const RemoteRouters&) = delete;

  std::unique_ptr<ConnectionPoint> make(const std::string& text) {
    return manager->createConnectionPoint(parseJSON(text).get());
  }
  // Adds or updates a router; the connection point that now stands for it.
  std::shared_ptr<ConnectionPoint> put(const std::string& id, const std::string& text) {
    manager->addOrUpdateConnectionPoint(make(text));
    return manager->findConnectionPoint(id);
  }
  // Waits until the link stands and the last thing that it makes the bus see is there.
  bool comesUp(const ConnectionPoint& point) const {
    return eventually([&] {
      const auto payloads = bus.payloads();
      return point.isConnected() && !payloads.empty() &&
             payloads.back().find("\"stat\"") != std::string::npos;
    });
  }
  void removeAll() { manager->loadFromJSON(parseJSON(R"({"connectionPoint":[]})").get()); }
  bool handle(const std::string& payload) {
    ResponseList responses;
    return manager->handleMessage(received(payload), responses);
  }
  static std::shared_ptr<DispatcherPeerClient> peer(const std::string& id) {
    return routerPeerManager()->findPeer(id);
  }
  static std::size_t peerCount() { return routerPeerManager()->peers().size(); }

  LogCapture log;
  ConsoleCapture console;
  MasterBus bus;
  std::unique_ptr<RemoteValtorConnectionPointManager> manager;

 private:
  TemporaryFolder folder_;
};

}  // namespace valtor::test
