#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "app/util/Mutex.h"
#include "valtor-status/BusParticipant.h"
#include "valtor-status/LiveState.h"

namespace valtor {

// Reads the daemon's status socket twice a second and feeds what it says, or why it says nothing,
// to the state. A thread of its own; an answer has a second and kLongestStatus. The state and what
// the function uses have to outlive it.
class StatusWatch {
 public:
  // "say" gets a line for the log whenever the daemon or the bus comes or goes.
  StatusWatch(std::string socket, LiveState& state, std::function<BusParticipant::View()> bus,
              std::function<void(const std::string& line)> say);
  ~StatusWatch();
  StatusWatch(const StatusWatch&) = delete;
  StatusWatch& operator=(const StatusWatch&) = delete;

 private:
  void run();
  void lookAndTell();
  void look();
  void silent(const std::string& problem);
  void tellBus(const BusParticipant::View& view);

  const std::string socket_;
  LiveState& state_;
  const std::function<BusParticipant::View()> bus_;
  const std::function<void(const std::string&)> say_;
  std::optional<bool> answering_;
  std::optional<bool> busIsUp_;
  Mutex lock_;
  std::condition_variable_any changed_;
  bool ends_ VALTOR_GUARDED_BY(lock_) = false;
  std::thread thread_;  // the last, since it uses the others
};

}  // namespace valtor
