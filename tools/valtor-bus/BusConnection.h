#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bus/PellInternalMessage.h"
#include "valtor-bus/BusRequest.h"

namespace valtor {

struct BusSettings {
  std::string host = "127.0.0.1";
  uint16_t port = 15000;
  std::string name = "valtor-bus";
  int32_t connID = 0;
};

// One connection to a message node, for a command that waits: every operation blocks until it is
// done or its deadline has passed. While it waits it reads, and asks a silent node for a sign of
// life every 5 s; a node that says nothing for 20 s counts as lost, so that a link that only looks
// up is noticed. SIGINT and SIGTERM end a wait early while the object lives (interrupted() is then
// true) and end nothing else. One thread.
class BusConnection {
 public:
  using Clock = std::chrono::steady_clock;

  explicit BusConnection(BusSettings settings);
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  // Paths, literal or ending in "*", that every open() subscribes with "receiveAll".
  void setSubscriptions(std::vector<std::string> paths);

  // Connects within 5 s, logs in and subscribes. Throws LinkFailure.
  void open();
  bool isOpen() const;
  // "host:port".
  std::string where() const;

  // Returns when the system has taken every byte; throws LinkFailure when it does not, or when the
  // connection is lost or was never opened.
  void send(const BusRequest& request);
  void sendPayload(const std::string& payload);

  // The next message; none at the deadline (a deadline in the past takes what is there already) or
  // when interrupted. Throws LinkFailure once everything that came before a loss was handed out.
  std::optional<PellInternalMessage> receive(Clock::time_point deadline);

  // Waits without reading anything out.
  void pause(Clock::time_point until);

  // Closes so that the node gets all that was sent: a close with unread input would drop it.
  void finish();

  bool interrupted() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// The seconds of an option as a duration, at most some years, whatever a person typed.
std::chrono::microseconds toDuration(double seconds);

}  // namespace valtor
