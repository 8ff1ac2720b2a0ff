#include "valtor-bus/PersistentLink.h"

#include <algorithm>

#include "support/CommandFailure.h"
#include "valtor-bus/Output.h"

namespace valtor {

void PersistentLink::open() {
  lastAttempt_ = BusConnection::Clock::now();
  connection_.open();
  ++openings_;
}

std::optional<PellInternalMessage> PersistentLink::receive(
    BusConnection::Clock::time_point deadline) {
  bool wasOpen = false;
  while (!wasOpen) {
    try {
      wasOpen = connection_.isOpen();
      if (wasOpen) {
        return connection_.receive(deadline);
      }
      connection_.pause(std::min(deadline, lastAttempt_ + connection_.settings().times.reopen));
      if (connection_.interrupted() || BusConnection::Clock::now() >= deadline) {
        return std::nullopt;
      }
      reopen();
    } catch (const Interrupted&) {
      return std::nullopt;
    } catch (const LinkFailure& failure) {
      report(failure.what());
    }
  }
  return std::nullopt;
}

void PersistentLink::send(const BusRequest& request) {
  try {
    connection_.send(request);
  } catch (const Interrupted&) {
    // The next receive() tells.
  } catch (const LinkFailure& failure) {
    report(failure.what());
  }
}

void PersistentLink::reopen() {
  open();
  // A node that takes the connection and drops it at once is no news.
  connection_.awaitInput();
  say("connected to " + connection_.where() + " again");
  lossReported_ = false;
}

void PersistentLink::report(const std::string& loss) {
  if (!lossReported_) {
    say(loss + "; trying again every second");
    lossReported_ = true;
  }
}

}  // namespace valtor
