#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <httplib.h>
#include <pthread.h>
#include <utility>
#include <vector>

#include "app/util/Mutex.h"

namespace valtor {

// The HTTP library takes a thread for each connection. This is where it gets them: started when
// they are needed, with small stacks, up to a limit. Beyond it a connection is served at once by
// the thread that accepts, whose server knows what that means: to refuse. The library calls
// enqueue() and on_idle() on the accepting thread, and shutdown() there in the end: of the server,
// or when the system has refused to accept. None of them throws.
class ConnectionThreads final : public httplib::TaskQueue {
 public:
  // "idle" is called now and then; "ending" before it waits for the connections to end, which it
  // has to bring about.
  ConnectionThreads(std::size_t most, std::function<void()> idle, std::function<void()> ending)
      : most_(most), idle_(std::move(idle)), ending_(std::move(ending)) {
    threads_.reserve(most_);
  }
  ~ConnectionThreads() override { ConnectionThreads::shutdown(); }
  ConnectionThreads(const ConnectionThreads&) = delete;
  ConnectionThreads& operator=(const ConnectionThreads&) = delete;

  void enqueue(std::function<void()> connection) override;
  // Waits for the connections that are being served.
  void shutdown() override;
  void on_idle() override { idle_(); }

 private:
  static void* entry(void* self);
  void run();
  bool keep(std::function<void()>& connection);
  bool startThread();

  const std::size_t most_;
  const std::function<void()> idle_;
  const std::function<void()> ending_;
  std::vector<pthread_t> threads_;  // of the accepting thread
  Mutex lock_;
  std::condition_variable_any changed_;
  std::deque<std::function<void()>> waiting_ VALTOR_GUARDED_BY(lock_);
  std::size_t free_ VALTOR_GUARDED_BY(lock_) = 0;  // threads that serve nobody
  bool ends_ VALTOR_GUARDED_BY(lock_) = false;
};

}  // namespace valtor
