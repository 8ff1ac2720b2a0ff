#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <stop_token>
#include <utility>

#include "app/util/Mutex.h"

namespace valtor {

// Says that a bus client is being closed, and wakes everybody who waits for something else with its
// token (std::condition_variable_any, std::stop_callback). A client that is connected again starts
// with a new token. Any thread may ask and begin; reset() is for the owner, while no thread of the
// client runs.
class ClosingSignal {
 public:
  bool begun() const { return begun_; }

  // For one wait: the token of the client's present life.
  std::stop_token token() const {
    const Locked lock(lock_);
    return source_.get_token();
  }

  // Callbacks of the token run on the calling thread, before this returns. Later calls do nothing.
  void begin() {
    begun_ = true;
    std::stop_source source = copy();
    source.request_stop();
  }

  // Sleeps so long, or until closing begins.
  void sleep(std::chrono::microseconds time) const {
    const Locked lock(lock_);
    asleep_.wait_for(lock_, source_.get_token(), time, [] { return false; });
  }

  void reset() {
    std::stop_source fresh;
    {
      const Locked lock(lock_);
      source_.swap(fresh);
    }
    begun_ = false;
  }

 private:
  std::stop_source copy() const {
    const Locked lock(lock_);
    return source_;
  }

  mutable Mutex lock_;
  mutable std::condition_variable_any asleep_;
  std::stop_source source_ VALTOR_GUARDED_BY(lock_);
  std::atomic<bool> begun_{false};
};

}  // namespace valtor
