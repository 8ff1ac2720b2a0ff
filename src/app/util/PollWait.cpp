#include "app/util/PollWait.h"

#include <algorithm>
#include <cstdint>
#include <time.h>

namespace valtor {

namespace {

using Clock = std::chrono::steady_clock;

// Never negative.
timespec timeLeft(Clock::time_point until) {
  using std::chrono::nanoseconds;
  const auto left = std::max(nanoseconds(until - Clock::now()), nanoseconds(0));
  constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
  timespec time{};
  time.tv_sec = static_cast<time_t>(left.count() / kNanosecondsPerSecond);
  time.tv_nsec = static_cast<long>(left.count() % kNanosecondsPerSecond);
  return time;
}

int pollEntries(pollfd* entries, nfds_t count, Clock::time_point until) {
  const timespec time = timeLeft(until);
  return ppoll(entries, count, &time, nullptr);
}

}  // namespace

int pollUntil(std::vector<pollfd>& entries, Clock::time_point until) {
  return pollEntries(entries.data(), entries.size(), until);
}

short pollUntil(int descriptor, short events, Clock::time_point until) {
  pollfd entry{descriptor, events, 0};
  return pollEntries(&entry, 1, until) > 0 ? entry.revents : short{0};
}

}  // namespace valtor
