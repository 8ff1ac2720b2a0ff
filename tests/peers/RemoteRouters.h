#pragma once

#include "peers/RemoteValtorConnectionPoint.h"
#include "peers/RemoteValtorConnectionPointManager.h"
#include "peers/ValtorRouterPeerManager.h"
#include "support/MasterBus.h"
#include "support/ScriptedNode.h"
#include "support/Vocabulary.h"

namespace valtor::test {

// The phy that leads to the node.
inline std::string phyText(const ScriptedNode& node) {
  return R"({"type":"tcp","ipAddress":")" + node.address() + R"(","port":)" +
         std::to_string(node.port()) + R"(,"server":true})";
}

// What a test of peers stands on; the node is one that they lead to.
class PeerTest : public testing::Test {
 protected:
  LogCapture log_;
  TemporaryFolder folder_;
  MasterBus bus_;
  ScriptedNode node_{"127.0.0.2"};
};

// The process's router peer manager with quick reconnections, and a manager of remote routers on
// top, which is gone before the slot is cleared. The only router is "r".
class RemoteRouters : public PeerTest {
 protected:
  RemoteRouters() {
    folder_.becomePathPrefix();
    auto peers = std::make_shared<ValtorRouterPeerManager>("routers", &bus_);
    auto timing = DispatcherPeerClient::hostTiming();
    timing.reconnectDelay = std::chrono::milliseconds(1);
    peers->setPeerTiming(timing);
    setRouterPeerManager(peers);
    manager_ = std::make_unique<RemoteValtorConnectionPointManager>("valtor", "valtor", bus_);
  }
  ~RemoteRouters() override {
    manager_.reset();
    setRouterPeerManager(nullptr);
  }

  std::unique_ptr<ConnectionPoint> make(const std::string& phy) {
    const std::string text = R"({"type":"valtor","name":"router","uniqueID":"r","phy":[)" + phy;
    return manager_->createConnectionPoint(parseJSON(text + "]}").get());
  }
  // Adds or updates the router; the connection point that now stands for it.
  std::shared_ptr<ConnectionPoint> put(const ScriptedNode& node) {
    manager_->addOrUpdateConnectionPoint(make(phyText(node)));
    return manager_->findConnectionPoint("r");
  }
  // Waits until the link stands and the last thing that it makes the bus see is there.
  bool comesUp(const ConnectionPoint& point) const {
    return eventually([&] {
      const Payloads payloads = bus_.payloads();
      return point.isConnected() && !payloads.empty() &&
             payloads.back().find("\"stat\"") != std::string::npos;
    });
  }
  void removeAll() { manager_->loadFromJSON(parseJSON(R"({"connectionPoint":[]})").get()); }
  static auto peer() { return routerPeerManager()->findPeer("r"); }
  static std::size_t peerCount() { return routerPeerManager()->peers().size(); }

  std::unique_ptr<RemoteValtorConnectionPointManager> manager_;
};

}  // namespace valtor::test
