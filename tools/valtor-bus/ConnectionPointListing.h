#pragma once

#include <array>
#include <vector>

#include "support/BusRequest.h"
#include "valtor-bus/BusConnection.h"
#include "valtor-bus/ConnectionPointTable.h"
#include "valtor-bus/Exchange.h"

namespace valtor {

// Asks for the connection points and keeps the table of them. One thread.
class ConnectionPointListing {
 public:
  using Clock = BusConnection::Clock;

  // The seconds for one listing, and what others get after the first answer.
  ConnectionPointListing(double timeout, BusTimes::Time others)
      : timeout_(timeout), others_(others) {}

  // Opens the connection, lists once, and asks again as long as nobody answers. Throws
  // CommandFailure when nobody does until the deadline, to which the seconds have led.
  void run(BusConnection& connection, Clock::time_point deadline);

  // Begins anew. The caller sends questions() at once and in this order, and again whenever
  // isDueAgain(): a manager without server connection points does not answer the first, and as it
  // answers in order, it has none once the second is answered.
  void begin();
  std::array<BusRequest, 2> questions();
  bool isDueAgain() const;

  // Whether the message is one that changed the table by itself.
  bool take(const PellInternalMessage& message);
  // Ends the listing when it is due; whether it did.
  bool endWhenDue();

  bool isRunning() const { return running_; }
  bool isAnswered() const { return answered_; }
  int32_t answeredBy() const { return answeredBy_; }  // the first connection that did
  // When there is something to do at the latest.
  Clock::time_point due() const;

  ConnectionPointTable table;

 private:
  const double timeout_;
  const BusTimes::Time others_;
  std::vector<BusRequest> asked_;  // in pairs
  Repetition repetition_;
  Clock::time_point due_;
  bool answered_ = false;
  int32_t answeredBy_ = 0;
  bool running_ = false;
};

}  // namespace valtor
