#pragma once

#include <condition_variable>
#include <stop_token>

#include "app/util/Mutex.h"

namespace valtor {

// A latch that holds back the handling of messages while the process is still being built. It is
// open unless start-up shuts it, and once opened again it never shuts. Any thread may call any
// operation; a waiter holds no other lock.
class StartGate {
 public:
  void shut();
  void open();

  // Blocks until the gate is open or the token is stopped, and feeds the watchdog meanwhile.
  void wait(const std::stop_token& stop);

 private:
  Mutex mutex_;
  std::condition_variable_any changed_;
  bool open_ VALTOR_GUARDED_BY(mutex_) = true;
};

}  // namespace valtor
