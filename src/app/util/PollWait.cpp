#include "app/util/PollWait.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <syslog.h>
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

// Once a minute at most.
void sayFailure(int error) {
  static std::atomic<int64_t> next{0};
  const int64_t now =
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now().time_since_epoch()).count();
  int64_t due = next;
  if (now >= due && next.compare_exchange_strong(due, now + 60)) {
    syslog(LOG_ERR, "Sockets cannot be waited for, they are looked at now and then: %s\n",
           strerrordesc_np(error));
  }
}

int pollEntries(pollfd* entries, nfds_t count, Clock::time_point until) {
  timespec time = timeLeft(until);
  const int ready = ppoll(entries, count, &time, nullptr);
  if (ready < 0 && errno != EINTR) {
    // No memory for it, or a limit that was lowered. Whoever waits looks now and then.
    constexpr Clock::duration kLook = std::chrono::milliseconds(10);
    sayFailure(errno);
    time = timeLeft(std::min(until, Clock::now() + kLook));
    nanosleep(&time, nullptr);
  }
  return ready;
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
