#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "app/util/UniqueDescriptor.h"

namespace valtor::bench {

// epoll and timers for the one thread that plays every node. What is registered must be removed
// before it is destroyed; both may happen inside a callback.
class EventLoop {
 public:
  using Ready = std::function<void(uint32_t events)>;
  using TimerId = int;

  EventLoop();

  void add(int descriptor, uint32_t events, Ready ready);
  void change(int descriptor, uint32_t events);
  void remove(int descriptor);

  // Calls the function every period, the first time one period from now. A call that comes late
  // does not move the later ones: a paced sender keeps its rate.
  TimerId every(std::chrono::nanoseconds period, std::function<void()> call);
  void cancel(TimerId timer);

  // Works until the condition holds, which is looked at after every batch of events. False when the
  // limit was reached first.
  bool runUntil(const std::function<bool()>& condition, std::chrono::nanoseconds limit);
  void runFor(std::chrono::nanoseconds time) {
    runUntil([] { return false; }, time);
  }

 private:
  struct Timer {
    TimerId id;
    int64_t next;    // ns
    int64_t period;  // ns
    std::shared_ptr<std::function<void()>> call;
  };

  // Fires what is due; when the next timer is, at most the limit.
  int64_t fireTimers(int64_t limit);

  UniqueDescriptor epoll_;
  std::unordered_map<int, std::shared_ptr<Ready>> ready_;
  std::vector<Timer> timers_;
  TimerId lastTimer_ = 0;
};

}  // namespace valtor::bench
