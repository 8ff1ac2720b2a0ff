#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <stop_token>

#include "app/util/ThreadAnnotations.h"

namespace valtor {

// A lock that its waiters get in the order in which they came: whoever holds it again and again
// cannot keep others out. Not recursive. Held with Locked, except where tryLock() decides. Any
// thread may use it; nobody may hold or wait for it when it is destroyed.
class VALTOR_CAPABILITY("mutex") FairMutex {
 public:
  FairMutex() = default;
  FairMutex(const FairMutex&) = delete;
  FairMutex& operator=(const FairMutex&) = delete;

  void lock() VALTOR_ACQUIRE();
  // The same, but gives up when the token is stopped: false then.
  bool lock(const std::stop_token& stop) VALTOR_TRY_ACQUIRE(true);
  // Takes the lock when it is free and nobody waits for it.
  bool tryLock() VALTOR_TRY_ACQUIRE(true);
  // Hands the lock to who has waited longest, if anybody waits.
  void unlock() VALTOR_RELEASE();
  // How many threads wait at this moment.
  std::size_t waiters() const;

 private:
  // On the stack of a waiting thread, linked in the order of arrival.
  struct Waiter {
    std::condition_variable granted;
    bool hasLock = false;
    Waiter* next = nullptr;
  };

  void append(Waiter& waiter);
  void remove(const Waiter& waiter);

  mutable std::mutex guard_;
  bool held_ = false;
  Waiter* first_ = nullptr;
  Waiter* last_ = nullptr;
  std::mutex visible_;  // held with the lock: what tools that check the order of locks see
};

}  // namespace valtor
