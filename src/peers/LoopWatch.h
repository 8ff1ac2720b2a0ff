#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "app/util/Mutex.h"
#include "bus/message/PellInternalMessage.h"
#include "peers/Crossings.h"

namespace valtor {

// Notices messages that go round in circles: two controllers that list each other, or a router
// entry that leads back, pass the same message on without end. A message that crosses more than
// kMostCrossings times within kWindow is one of those, and is warned of once an episode, which
// lasts until nothing has gone round for a window. Nothing is blocked.
//
// The same message is the same kind, path and body, of which the first kilobyte and the length are
// looked at: its identifier is part of it. Bodies without an identifier may be the same by right
// and are not watched. Any thread may use it; its lock is a leaf, and it logs without it.
class LoopWatch {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr unsigned kMostCrossings = 10;
  static constexpr std::chrono::seconds kWindow{10};

  struct Circle {
    MessageKind kind = MessageKind::Unknown;
    std::string path;
    std::string from;
    std::string to;
    std::chrono::system_clock::time_point time;  // when it was noticed last
  };
  struct Figures {
    uint64_t episodes = 0;
    std::optional<Circle> last;
  };

  // A message crosses. The router is the one that it comes from; none when it comes from the
  // controller. The names, of that router or of those that the message goes to, are asked for only
  // when there is something to say, without the lock.
  void note(const PellInternalMessage& message, const void* router,
            const std::function<std::string()>& names, Clock::time_point now = Clock::now());
  Figures figures() const;

 private:
  struct Seen {
    uint64_t hash = 0;
    Clock::time_point windowBegin{};
    unsigned crossings = 0;
  };

  bool goesRound(uint64_t hash, Clock::time_point now);
  bool beginsEpisode(Clock::time_point now);
  void beginEpisode(const PellInternalMessage& message, bool outwards,
                    const std::function<std::string()>& names);

  mutable Mutex lock_;
  // By the hash's low bits; a newer message takes the place of an older one.
  std::array<Seen, 1024> seen_ VALTOR_GUARDED_BY(lock_);
  std::optional<Clock::time_point> lastCircle_ VALTOR_GUARDED_BY(lock_);
  Figures figures_ VALTOR_GUARDED_BY(lock_);
};

}  // namespace valtor
