#include "app/util/FairMutex.h"

namespace valtor {

void FairMutex::lock() {
  {
    std::unique_lock<std::mutex> guard(guard_);
    if (held_) {
      Waiter self;
      (first_ == nullptr ? first_ : last_->next) = &self;
      last_ = &self;
      self.granted.wait(guard, [&self] { return self.hasLock; });
    }
    held_ = true;
  }
  visible_.lock();
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
