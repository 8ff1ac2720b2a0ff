#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <optional>
#include <stop_token>
#include <sys/un.h>

#include "app/util/UniqueDescriptor.h"

namespace valtor {

// The watchdog of a service manager, which ends and restarts a process that stops to feed it
// (sd_watchdog_enabled(3), sd_notify(3)). One thread feeds it, the one whose standing still is what
// a restart mends; calls of the static operations by any other thread do nothing. It feeds where it
// goes on, and in waits that may rightfully take long. A wait for a lock is none of these: who
// holds one for long is the hang that the watchdog is for, with one exception. Others hold locks
// while they send to the controller's node, which may take its messages slowly. As long as it takes
// some, they feed for the one who waits (progress()), so that a hang shows when it has caught up.
//
// Feeding never blocks, takes no lock and writes no log line. The owner keeps the watchdog longer
// than its feeder.
class Watchdog {
 public:
  using Clock = std::chrono::steady_clock;

  // Off unless the environment asks for it: WATCHDOG_USEC, NOTIFY_SOCKET and, if it is set, a
  // WATCHDOG_PID that is this process. Logs that it is on, or why it cannot be.
  Watchdog();

  bool isOn() const { return socket_.valid(); }

  // Makes the calling thread the one that feeds, for its own life on that thread's stack; with null
  // or a watchdog that is off, it does nothing.
  class Feeder {
   public:
    explicit Feeder(Watchdog* watchdog);
    ~Feeder();
    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;
  };

  // Stands around every wait for a lock.
  class LockWait {
   public:
    LockWait();
    ~LockWait();
    LockWait(const LockWait&) = delete;
    LockWait& operator=(const LockWait&) = delete;
  };

  // Feeds, unless half of the watchdog's time has not passed since it was fed last.
  static void feed();
  // Something that locks are held for went on. Feeds while the feeding thread waits for a lock,
  // with the same restraint. Any thread.
  void progress();
  // When feed() will feed again: who waits is awake by then. Nothing where the calling thread feeds
  // no watchdog, so that nobody wakes for it.
  static std::optional<Clock::time_point> due();

  // changed.wait(lock, stop, holds), which feeds meanwhile.
  template <class Lock, class Condition>
  static bool wait(std::condition_variable_any& changed, Lock& lock, const std::stop_token& stop,
                   Condition holds) {
    while (const auto until = due()) {
      const bool held = changed.wait_until(lock, stop, *until, holds);
      if (held || stop.stop_requested()) {
        return held;
      }
      feed();
    }
    return changed.wait(lock, stop, holds);
  }

 private:
  void tell();

  UniqueDescriptor socket_;  // none: off
  sockaddr_un address_{};
  socklen_t addressSize_ = 0;
  std::chrono::microseconds interval_{};  // half of what the service manager allows
  std::atomic<Clock::time_point> due_{Clock::time_point{}};
  std::atomic<bool> waitsForLock_{false};  // the feeding thread
};

}  // namespace valtor
