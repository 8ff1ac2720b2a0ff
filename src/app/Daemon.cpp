#include "app/Daemon.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <string>
#include <syslog.h>
#include <utility>

#include "app/ActiveDatabase.h"
#include "app/StatusDocument.h"
#include "app/StatusServer.h"
#include "app/util/Paths.h"
#include "bus/ValtorInterfaceClient.h"
#include "peers/RemoteValtorConnectionPointManager.h"
#include "peers/ValtorRouterPeerManager.h"

namespace valtor {

namespace {

// Shuts the gate for a scope, however that ends.
class ShutGate {
 public:
  explicit ShutGate(StartGate& gate) : gate_(gate) { gate_.shut(); }
  ~ShutGate() { gate_.open(); }
  ShutGate(const ShutGate&) = delete;
  ShutGate& operator=(const ShutGate&) = delete;

 private:
  StartGate& gate_;
};

bool isRouter(const std::string& uniqueID) {
  const auto routers = describeRouters();
  return std::any_of(routers.begin(), routers.end(),
                     [&](const RouterDescription& router) { return router.uniqueID == uniqueID; });
}

// What the status server asks. The router peer manager is looked up each time, and outlives the
// server.
StatusServer::Source statusSource(const ValtorInterfaceClient& client) {
  StatusServer::Source source;
  source.document = [&client] { return statusDocument(client); };
  source.follow = [](const std::string& uniqueID,
                     std::function<void()> wake) -> TrafficTap::FollowerPtr {
    const auto manager = routerPeerManager();
    if (manager == nullptr || !isRouter(uniqueID)) {
      return nullptr;
    }
    return manager->watch().tap.follow(uniqueID, std::move(wake));
  };
  source.take = [](TrafficTap::Follower& follower) {
    const auto manager = routerPeerManager();
    return manager != nullptr ? manager->watch().tap.take(follower) : std::string();
  };
  source.unfollow = [](const TrafficTap::FollowerPtr& follower) {
    if (const auto manager = routerPeerManager()) {
      manager->watch().tap.unfollow(follower);
    }
  };
  return source;
}

}  // namespace

Daemon::Daemon(bool skipDatabase, const std::string& host, int32_t port)
    : skipDatabase_(skipDatabase),
      client_(std::make_unique<ValtorInterfaceClient>(host, port, kClientName, skipDatabase,
                                                      paths().databaseDirectory)) {
  client_->setDatabaseLoader(loadActiveDatabase);
  client_->setWatchdog(&watchdog_);
}

Daemon::~Daemon() {
  status_.reset();  // it asks all the others
  client_->close();
  client_->removeAllHandlers();
  // While the client still lives: peers report and forward to it until they are gone.
  setRouterPeerManager(nullptr);
}

void Daemon::start() {
  const ShutGate gate(client_->startGate());
  auto timing = client_->timing();
  timing.reconnectDelay = reconnectDelay_;
  client_->setTiming(timing);
  auto peers = std::make_shared<ValtorRouterPeerManager>(kPeerManagerName, client_.get());
  // What a slow node took a part of has to go on although nobody sends anything more.
  client_->setFrameSender(peers->frameSender());
  client_->connect();
  auto peerTiming = peers->peerTiming();
  peerTiming.reconnectDelay = reconnectDelay_;
  peers->setPeerTiming(peerTiming);
  setRouterPeerManager(std::move(peers));
  status_ = std::make_unique<StatusServer>(paths().statusSocket, statusSource(*client_));
  if (skipDatabase_) {
    return;
  }
  try {
    client_->loadActiveDatabase();
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "Error loading active database: %s", error.what());
    client_->setSkipDatabase(true);  // the next word about the role tries again
    client_->doubtRole();
  }
}

void Daemon::wait() { client_->waitTillComplete(); }

}  // namespace valtor
