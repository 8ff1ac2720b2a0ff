#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <string>
#include <thread>

#include "app/util/Mutex.h"
#include "valtor-status/BusParticipant.h"
#include "valtor-status/LiveState.h"

namespace valtor {

// Reads the daemon's status socket twice a second and feeds what it says, or why it says nothing,
// to the state. A thread of its own; an answer has a second and four mebibytes. The state and what
// the function uses have to outlive it.
class StatusWatch {
 public:
  StatusWatch(std::string socket, LiveState& state, std::function<BusParticipant::View()> bus);
  ~StatusWatch();
  StatusWatch(const StatusWatch&) = delete;
  StatusWatch& operator=(const StatusWatch&) = delete;

 private:
  void run();
  void look();

  const std::string socket_;
  LiveState& state_;
  const std::function<BusParticipant::View()> bus_;
  Mutex lock_;
  std::condition_variable_any changed_;
  bool ends_ VALTOR_GUARDED_BY(lock_) = false;
  std::thread thread_;  // the last, since it uses the others
};

}  // namespace valtor
