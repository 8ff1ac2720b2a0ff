#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <poll.h>
#include <time.h>

namespace valtor {

// The time left until then, for ppoll(2), whose unit is the nanosecond: poll(2) would round the
// pace of a link to milliseconds. Never negative.
inline timespec timeLeft(std::chrono::steady_clock::time_point until) {
  using std::chrono::nanoseconds;
  const auto left = std::max(nanoseconds(until - std::chrono::steady_clock::now()), nanoseconds(0));
  constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
  timespec time{};
  time.tv_sec = static_cast<time_t>(left.count() / kNanosecondsPerSecond);
  time.tv_nsec = static_cast<long>(left.count() % kNanosecondsPerSecond);
  return time;
}

// Waits for one of the events, an error or a hang-up of the descriptor, at most until then. The
// events that came, 0 for none. A signal ends the wait early.
inline short pollUntil(int descriptor, short events, std::chrono::steady_clock::time_point until) {
  pollfd entry{descriptor, events, 0};
  const timespec time = timeLeft(until);
  return ppoll(&entry, 1, &time, nullptr) > 0 ? entry.revents : short{0};
}

}  // namespace valtor
