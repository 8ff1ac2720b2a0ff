#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "app/util/Mutex.h"

namespace valtor {

// Since when a link stands or is down, how often it was lost, and why. Its lock is a leaf; any
// thread may use it.
class LinkHistory {
 public:
  using Clock = std::chrono::system_clock;

  struct End {
    std::string reason;
    Clock::time_point time;
  };
  struct Figures {
    bool up = false;
    Clock::time_point since;
    uint64_t lost = 0;                     // ends that nobody here wanted
    std::deque<Clock::time_point> losses;  // the last of those, at most kKeptLosses
    std::optional<End> lastEnd;            // wanted or not
  };

  static constexpr std::size_t kKeptLosses = 16;

  LinkHistory();

  // Takes a state in; whether it differs from the one before. An end is lost unless it is wanted.
  // Throws std::bad_alloc; the state is taken in then, and what is told of its end may be missing.
  bool note(bool up, const char* reason, bool wanted);
  Figures figures() const;

 private:
  mutable Mutex lock_;
  Figures figures_ VALTOR_GUARDED_BY(lock_);
};

}  // namespace valtor
