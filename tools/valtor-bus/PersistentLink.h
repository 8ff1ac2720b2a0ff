#pragma once

#include <optional>

#include "valtor-bus/BusConnection.h"

namespace valtor {

// Keeps a connection up for a command that runs long: the first open() must succeed, after that
// each loss is reported on standard error and the connection is tried again every second, until the
// node says something. One thread; the connection outlives it.
class PersistentLink {
 public:
  explicit PersistentLink(BusConnection& connection) : connection_(connection) {}

  // Throws LinkFailure.
  void open();
  // As BusConnection::receive(), but a loss and an interrupt give none. The next call waits, until
  // its deadline, for the connection to be made again; an attempt that is under way goes beyond
  // that, though not beyond BusConnection::setDeadline().
  std::optional<PellInternalMessage> receive(BusConnection::Clock::time_point deadline);
  // As BusConnection::send(), but what cannot be sent is dropped.
  void send(const BusRequest& request);

  // How often the connection was opened.
  unsigned openings() const { return openings_; }

 private:
  void reopen();
  void report(const std::string& loss);

  BusConnection& connection_;
  unsigned openings_ = 0;
  bool lossReported_ = false;
  BusConnection::Clock::time_point lastAttempt_;
};

}  // namespace valtor
