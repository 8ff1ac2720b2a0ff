#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "app/util/Watchdog.h"

namespace valtor {

class StatusServer;
class ValtorInterfaceClient;

// The objects that live for the whole run, in the order in which they depend on each other: the
// interface client, and the process-wide router peer manager that forwards through it. One at a
// time; built, started and destroyed by one thread. The daemon's own main never destroys it in
// normal operation; tests do.
class Daemon {
 public:
  // Where the controller's message node listens.
  static constexpr const char* kBusHost = "localhost";
  static constexpr int32_t kBusPort = 15000;
  static constexpr const char* kClientName = "valtorRemote";
  static constexpr const char* kPeerManagerName = "valtorInterfacePeer";

  explicit Daemon(bool skipDatabase, const std::string& host = kBusHost, int32_t port = kBusPort);
  // Ends all threads and links, peers first.
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  // From one attempt to connect a link to the next, 1 s if not set; before start().
  void setReconnectDelay(std::chrono::milliseconds delay) { reconnectDelay_ = delay; }

  // Connects to the bus, installs the router peer manager, answers whoever asks for the status and,
  // unless it is skipped, loads the active database, in this order. What arrives on the bus
  // meanwhile waits. Whether the bus could be reached does not matter: the client goes on trying.
  void start();
  // Blocks until the client's threads end, which in normal operation they never do.
  void wait();

  ValtorInterfaceClient& client() { return *client_; }

 private:
  const bool skipDatabase_;
  std::chrono::milliseconds reconnectDelay_{1000};
  Watchdog watchdog_;  // fed while the interface client handles messages
  std::unique_ptr<ValtorInterfaceClient> client_;
  std::unique_ptr<StatusServer> status_;
};

}  // namespace valtor
