#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace valtor {

// Where the controller's node is, and as who to log in there.
struct BusPlace {
  std::string host = "127.0.0.1";
  uint16_t port = 15000;
  std::string name = "valtor-status";
  int32_t connID = 0;
};

// The controller's bus as one more participant sees it. It counts the messages, drops them, and
// asks the daemon every two seconds for a sign of life. A thread of its own reads whatever comes at
// once, so that the node never waits for it, and makes a lost connection again every second. What
// it holds in memory does not depend on what the bus carries.
class BusParticipant {
 public:
  struct View {
    bool up = false;
    double since = 0;     // of the state; times are seconds since 1970
    std::string problem;  // why it is down
    // The last round trip of the question, or, if that is longer, how long one has waited by now.
    std::optional<double> daemonDelayMs;
    std::optional<double> daemonAnsweredAt;
    uint64_t messages = 0;  // since the start
  };

  explicit BusParticipant(BusPlace place);
  // Waits for a look-up of the host's name that is under way.
  ~BusParticipant();
  BusParticipant(const BusParticipant&) = delete;
  BusParticipant& operator=(const BusParticipant&) = delete;

  // Any thread.
  View view() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace valtor
