#include "load/EventLoop.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <system_error>
#include <utility>

#include "load/Samples.h"

namespace valtor::bench {

EventLoop::EventLoop() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_.valid()) {
    throw std::system_error(errno, std::generic_category(), "epoll");
  }
  // The usual 50 us of slack would be seen in every latency.
  prctl(PR_SET_TIMERSLACK, 1000UL);
}

void EventLoop::add(int descriptor, uint32_t events, Ready ready) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
  ready_[descriptor] = std::make_shared<Ready>(std::move(ready));
}

void EventLoop::change(int descriptor, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, descriptor, &event);
}

void EventLoop::remove(int descriptor) {
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
  ready_.erase(descriptor);
}

EventLoop::TimerId EventLoop::every(std::chrono::nanoseconds period, std::function<void()> call) {
  timers_.push_back({++lastTimer_, nowNs() + period.count(), period.count(),
                     std::make_shared<std::function<void()>>(std::move(call))});
  return lastTimer_;
}

void EventLoop::cancel(TimerId timer) {
  std::erase_if(timers_, [timer](const Timer& one) { return one.id == timer; });
}

int64_t EventLoop::fireTimers(int64_t limit) {
  int64_t next = limit;
  // Calls may add and cancel timers.
  for (std::size_t i = 0; i < timers_.size(); ++i) {
    const TimerId id = timers_[i].id;
    while (i < timers_.size() && timers_[i].id == id && timers_[i].next <= nowNs()) {
      timers_[i].next += timers_[i].period;
      const auto call = timers_[i].call;
      (*call)();
    }
    if (i < timers_.size()) {
      next = std::min(next, timers_[i].next);
    }
  }
  return next;
}

bool EventLoop::runUntil(const std::function<bool()>& condition, std::chrono::nanoseconds limit) {
  const int64_t end = nowNs() + limit.count();
  while (!condition()) {
    if (nowNs() >= end) {
      return false;
    }
    const int64_t wait = std::max<int64_t>(0, fireTimers(end) - nowNs());
    const timespec time{static_cast<time_t>(wait / 1'000'000'000),
                        static_cast<long>(wait % 1'000'000'000)};
    epoll_event events[64];
    const int count = epoll_pwait2(epoll_.get(), events, 64, &time, nullptr);
    for (int i = 0; i < count; ++i) {
      const auto found = ready_.find(events[i].data.fd);
      if (found != ready_.end()) {
        const std::shared_ptr<Ready> ready = found->second;
        (*ready)(events[i].events);
      }
    }
  }
  return true;
}

}  // namespace valtor::bench
