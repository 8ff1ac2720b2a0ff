#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bus/message/PellInternalMessage.h"
#include "support/BusRequest.h"
#include "valtor-bus/BusConnection.h"

namespace valtor {

// When to ask again for what nobody has answered: soon at first, since whoever has just started is
// there in a moment, then every second.
class Repetition {
 public:
  using Clock = BusConnection::Clock;

  // Now is one of the times.
  void next();
  // At once before the first.
  Clock::time_point due() const { return due_; }

 private:
  Clock::time_point due_;
  std::chrono::milliseconds interval_{250};
};

// The questions whether the daemon is ready, which it answers whatever its role. One thread.
class ReadinessQuestions {
 public:
  // Asks once more, on a connection that is open: the daemon on the controller's bus, or on that of
  // a router.
  void ask(BusConnection& connection, int32_t daemon = kDaemonConnID);
  // How long ago the question was asked that the message answers, if it answers one.
  std::optional<BusConnection::Clock::duration> tripOf(const PellInternalMessage& message) const;

  bool empty() const { return asked_.empty(); }

 private:
  std::vector<std::pair<BusRequest, BusConnection::Clock::time_point>> asked_;
};

// Asks the daemon on the controller's bus whether it is ready, again and again or once; how long
// the answer took, or none at the deadline. Drops what else comes. Throws LinkFailure.
std::optional<BusConnection::Clock::duration> askDaemon(BusConnection& connection,
                                                        BusConnection::Clock::time_point deadline,
                                                        bool again);

// Opens the connection. A node that refuses is tried again until the deadline, beyond which the
// connection does nothing from now on. Throws LinkFailure.
void openBefore(BusConnection& connection, BusConnection::Clock::time_point deadline);

// Opens the connection and sends a request that nobody answers; returns once the node has read it.
// A change waits for the daemon as below. Throws CommandFailure.
void sendOnce(BusConnection& connection, const BusRequest& request, double seconds);

// A request and the answers to it, as they come, on a connection of its own. A "GET" is asked again
// as long as there is not enough, each time with a new identifier unless it came with one. What
// changes something goes out once, when the daemon has said that it is ready, or, on a bus without
// one, after half of the time. One thread.
class Exchange {
 public:
  // Opens the connection, which has to outlive the exchange, and sends the request. All of it ends
  // after the seconds. Throws CommandFailure.
  Exchange(BusConnection& connection, BusRequest request, double seconds);

  // The next answer, refusals included; none when the time is over. Throws CommandFailure when
  // interrupted, and when the link is lost before there was enough.
  std::optional<PellInternalMessage> next();
  // What came is enough: others get BusTimes::others from now on.
  void hasEnough();

  // Throws CommandFailure when every answer so far was a refusal, or there was none.
  void requireAnswer(const std::string& hint) const;
  // Throws CommandFailure when somebody refused.
  void requireNoRefusal() const;
  // Who refused and why, one after the other; "" when nobody did.
  const std::string& refusals() const { return refusals_; }
  const BusRequest& request() const { return requests_.front(); }

 private:
  bool repeats() const;
  void bound(BusConnection::Clock::duration time);
  // Whether it answers the request, and no repetition of one that its sender has answered.
  bool takes(const PellInternalMessage& message);

  BusConnection& connection_;
  std::vector<BusRequest> requests_;        // the first, and its repetitions
  std::map<int32_t, std::size_t> answers_;  // by sender, which of them it has answered
  Repetition repetition_;
  const double seconds_;
  BusConnection::Clock::time_point end_;
  bool enough_ = false;
  bool answered_ = false;
  std::string refusals_;
};

// The failure of a request that nobody answered in time.
[[noreturn]] void throwNoAnswer(const BusConnection& connection, const BusRequest& request,
                                double seconds, const std::string& hint);

}  // namespace valtor
