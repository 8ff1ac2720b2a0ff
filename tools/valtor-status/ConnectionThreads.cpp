#include "valtor-status/ConnectionThreads.h"

#include <new>
#include <utility>

namespace valtor {
namespace {

constexpr std::size_t kStack = 262144;  // bytes, of which a connection touches a tenth

}  // namespace

void ConnectionThreads::enqueue(std::function<void()> connection) {
  bool finds = false;
  {
    const Locked lock(lock_);
    finds = free_ > waiting_.size();
  }
  // Only this thread adds connections, so what is free now stays so.
  if (!finds && !(threads_.size() < most_ && startThread())) {
    connection();
    return;
  }
  if (!keep(connection)) {
    connection();
  }
}

// False when there is no memory for it, which leaves it as it is.
bool ConnectionThreads::keep(std::function<void()>& connection) {
  const Locked lock(lock_);
  try {
    waiting_.push_back(std::move(connection));
  } catch (const std::bad_alloc&) {
    return false;
  }
  changed_.notify_one();
  return true;
}

bool ConnectionThreads::startThread() {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) {
    return false;
  }
  pthread_attr_setstacksize(&attributes, kStack);
  pthread_t thread{};
  const bool started = pthread_create(&thread, &attributes, entry, this) == 0;
  pthread_attr_destroy(&attributes);
  if (started) {
    threads_.push_back(thread);
    const Locked lock(lock_);
    ++free_;
  }
  return started;
}

void* ConnectionThreads::entry(void* self) {
  static_cast<ConnectionThreads*>(self)->run();
  return nullptr;
}

void ConnectionThreads::run() {
  for (;;) {
    std::function<void()> connection;
    {
      const Locked lock(lock_);
      changed_.wait(lock_, [this]() VALTOR_REQUIRES(lock_) { return ends_ || !waiting_.empty(); });
      if (waiting_.empty()) {
        return;
      }
      connection = std::move(waiting_.front());
      waiting_.pop_front();
      --free_;
    }
    connection();
    const Locked lock(lock_);
    ++free_;
  }
}

void ConnectionThreads::shutdown() {
  {
    const Locked lock(lock_);
    ends_ = true;
    changed_.notify_all();
  }
  ending_();
  for (const pthread_t thread : threads_) {
    pthread_join(thread, nullptr);
  }
  threads_.clear();
}

}  // namespace valtor
