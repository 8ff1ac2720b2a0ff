#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bus/message/PellInternalMessage.h"
#include "support/BusRequest.h"

namespace valtor {

// How long a connection waits.
struct BusTimes {
  using Time = std::chrono::milliseconds;
  Time open{5000};      // to find the host and to connect
  Time send{10000};     // for the node to take more of what is sent
  Time confirm{5000};   // for the node to show that it reads
  Time quiet{5000};     // without input before a keep-alive goes out
  Time silence{15000};  // without input after a keep-alive before the link counts as lost
  Time reopen{1000};    // from one attempt to make a lost connection again to the next
  // Several participants may answer one request: how long others get after the answer that would
  // be enough, and after a refusal.
  Time others{300};
  Time afterRefusal{1000};
};

// Where the node listens, and as whom the tool logs in there.
struct BusSettings {
  std::string host = "127.0.0.1";
  uint16_t port = 15000;
  std::string name = "valtor-bus";
  int32_t connID = 0;
  BusTimes times;
};

// One connection to a message node, for a command that waits: every operation blocks until it is
// done or its deadline has passed. While it waits it reads, and sends a silent node a keep-alive
// every 5 s; a node that says nothing for 15 s after the first counts as lost, so that a link that
// only looks up is noticed. From the first open() on SIGINT and SIGTERM end nothing but the
// operation that waits, or the next one: it throws Interrupted, and interrupted() is true from then
// on. The destructor waits for a name look-up that is under way. One thread.
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
  // The moment beyond which open(), send() and finish() do not go on, whatever their own times.
  void setDeadline(Clock::time_point deadline);
  const BusSettings& settings() const;
  // "host:port".
  std::string where() const;

  // Returns when this system has taken every byte; throws LinkFailure when the node's system takes
  // nothing for 10 s, or when the connection is lost or was never opened.
  void send(const BusRequest& request);
  void sendPayload(const std::string& payload);

  // The next message; none at the deadline (a deadline in the past takes what is there already).
  // Throws LinkFailure once everything that came before a loss was handed out.
  std::optional<PellInternalMessage> receive(Clock::time_point deadline);

  // Forgets the messages that receive() has not handed out yet.
  void dropReceived();

  // Waits without reading anything out, less long when interrupted.
  void pause(Clock::time_point until);

  // Sends a keep-alive and waits until anything came on this connection. Throws LinkFailure when
  // nothing does within 5 s.
  void awaitInput();
  // Closes once the node has read everything that was sent, for what nobody answers: a keep-alive
  // goes out, and nodes read in order. Throws LinkFailure when its answer does not come within 5 s
  // after the node's system last took data.
  void finish();

  // Sends a keep-alive; how long its answer took, or none at the deadline. Drops what else comes.
  // Throws LinkFailure when the connection is lost.
  std::optional<Clock::duration> roundTrip(Clock::time_point deadline);

  bool interrupted() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// "0.25 s"
std::string secondsText(std::chrono::duration<double> time);
// Seconds as a duration: none for less than that, at most some years, whatever a person typed.
std::chrono::microseconds toDuration(double seconds);

}  // namespace valtor
