#include "app/util/FairMutex.h"

#include "app/util/Watchdog.h"

namespace valtor {

void FairMutex::lock() {
  {
    std::unique_lock<std::mutex> guard(guard_);
    if (held_) {
      const Watchdog::LockWait wait;
      Waiter self;
      append(self);
      self.granted.wait(guard, [&self] { return self.hasLock; });
    }
    held_ = true;
  }
  visible_.lock();
}

bool FairMutex::lock(const std::stop_token& stop) {
  if (!stop.stop_possible()) {
    lock();
    return true;
  }
  Waiter self;
  // Outlives the guard, which it takes: its destructor waits for a call that is under way.
  const std::stop_callback wake(stop, [this, &self] {
    const std::lock_guard<std::mutex> guard(guard_);
    self.granted.notify_one();
  });
  {
    std::unique_lock<std::mutex> guard(guard_);
    if (held_) {
      const Watchdog::LockWait wait;
      append(self);
      self.granted.wait(guard, [&] { return self.hasLock || stop.stop_requested(); });
      if (!self.hasLock) {
        remove(self);
        return false;
      }
    }
    held_ = true;
  }
  visible_.lock();
  return true;
}

void FairMutex::append(Waiter& waiter) {
  (first_ == nullptr ? first_ : last_->next) = &waiter;
  last_ = &waiter;
}

void FairMutex::remove(const Waiter& waiter) {
  Waiter* before = nullptr;
  Waiter* found = first_;
  while (found != &waiter) {
    before = found;
    found = found->next;
  }
  (before == nullptr ? first_ : before->next) = waiter.next;
  if (last_ == &waiter) {
    last_ = before;
  }
}

bool FairMutex::tryLock() {
  {
    const std::lock_guard<std::mutex> guard(guard_);
    if (held_) {
      return false;
    }
    held_ = true;
  }
  visible_.lock();
  return true;
}

void FairMutex::unlock() {
  visible_.unlock();
  const std::lock_guard<std::mutex> guard(guard_);
  if (first_ == nullptr) {
    held_ = false;
    return;
  }
  // The lock stays held: it changes hands. The waiter goes on, and its entry away, only after
  // guard_ is released.
  Waiter* const next = first_;
  first_ = next->next;
  next->hasLock = true;
  next->granted.notify_one();
}

std::size_t FairMutex::waiters() const {
  const std::lock_guard<std::mutex> guard(guard_);
  std::size_t count = 0;
  for (const Waiter* waiter = first_; waiter != nullptr; waiter = waiter->next) {
    ++count;
  }
  return count;
}

}  // namespace valtor
