#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "bus/message/PellInternalMessage.h"
#include "valtor-bus/BusConnection.h"
#include "valtor-bus/BusRequest.h"

namespace valtor {

// Several participants of a bus may answer one request: how long others get after the answer that
// would be enough, and after a refusal.
constexpr std::chrono::milliseconds kTimeForOthers{300};
constexpr std::chrono::seconds kTimeAfterRefusal{1};

// A request and the answers to it, as they come. One thread.
class Exchange {
 public:
  // Sends the request, on an open connection that has to outlive the exchange.
  Exchange(BusConnection& connection, BusRequest request, double seconds);

  // The next answer, refusals included; none when the time is over. Throws CommandFailure when
  // interrupted, and when the link is lost before there was enough.
  std::optional<PellInternalMessage> next();
  // What came is enough: others get kTimeForOthers from now on.
  void hasEnough();

  // Throws CommandFailure when every answer so far was a refusal, or there was none.
  void requireAnswer(const std::string& hint) const;
  // Throws CommandFailure when somebody refused.
  void requireNoRefusal() const;
  // Who refused and why, one after the other; "" when nobody did.
  const std::string& refusals() const { return refusals_; }

 private:
  void bound(BusConnection::Clock::duration time);

  BusConnection& connection_;
  const BusRequest request_;
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
