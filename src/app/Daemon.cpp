#include "app/Daemon.h"

#include <exception>
#include <syslog.h>
#include <utility>

#include "app/ActiveDatabase.h"
#include "app/util/Paths.h"
#include "bus/ValtorInterfaceClient.h"
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

}  // namespace

Daemon::Daemon(bool skipDatabase, const std::string& host, int32_t port)
    : skipDatabase_(skipDatabase),
      client_(std::make_unique<ValtorInterfaceClient>(host, port, kClientName, skipDatabase,
                                                      paths().databaseDirectory)) {
  client_->setDatabaseLoader(loadActiveDatabase);
}

Daemon::~Daemon() {
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
  client_->connect();
  auto peers = std::make_shared<ValtorRouterPeerManager>(kPeerManagerName, client_.get());
  auto peerTiming = peers->peerTiming();
  peerTiming.reconnectDelay = reconnectDelay_;
  peers->setPeerTiming(peerTiming);
  setRouterPeerManager(std::move(peers));
  if (skipDatabase_) {
    return;
  }
  try {
    client_->loadActiveDatabase();
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "Error loading active database: %s", error.what());
    client_->setSkipDatabase(true);  // the next announcement of the role tries again
  }
}

void Daemon::wait() { client_->waitTillComplete(); }

}  // namespace valtor
