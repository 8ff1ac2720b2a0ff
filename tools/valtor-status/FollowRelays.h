#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "app/util/Mutex.h"
#include "app/util/StatusLimits.h"

namespace valtor {

// The messages of one router, as the daemon tells them to whoever follows it, for one browser. What
// a slow browser does not take is left out, the oldest first, and counted. One thread takes.
class FollowRelay {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::size_t kLines = 512;          // that wait at most
  static constexpr std::size_t kBytes = 1048576;      // of lines that wait at most
  static constexpr std::size_t kBatch = 100;          // lines that are taken at once
  static constexpr std::size_t kBatchBytes = 262144;  // after which no more are taken at once

  struct Batch {
    std::vector<std::string> lines;  // each a JSON object; what was left out stands first
    bool more = false;               // waits already
    bool ended = false;              // nothing comes any more, and why
    std::string reason;
  };

  // What has come, as soon as there is any; nothing at the deadline.
  Batch take(Clock::time_point deadline);

  // By who reads.
  void add(std::string line);
  void addMissed(double count);
  // Only the first reason counts.
  void end(const std::string& reason);

 private:
  Mutex lock_;
  std::condition_variable_any changed_;
  std::deque<std::string> lines_ VALTOR_GUARDED_BY(lock_);
  std::size_t bytes_ VALTOR_GUARDED_BY(lock_) = 0;  // of the lines
  double missed_ VALTOR_GUARDED_BY(lock_) = 0;
  bool ended_ VALTOR_GUARDED_BY(lock_) = false;
  std::string reason_ VALTOR_GUARDED_BY(lock_);
};

// Keeps a connection to the daemon's status socket for each relay and reads them all on a thread of
// its own, so that the daemon never waits for a browser. Any thread may call it.
class FollowRelays {
 public:
  // At once: somebody at the controller may want to follow as well.
  static constexpr std::size_t kMost = kMostFollowers - 4;

  explicit FollowRelays(std::string socket);
  // Ends the relays that are still there.
  ~FollowRelays();
  FollowRelays(const FollowRelays&) = delete;
  FollowRelays& operator=(const FollowRelays&) = delete;

  // A relay that lasts until its last holder lets it go. One that cannot begin has ended, and says
  // why.
  std::shared_ptr<FollowRelay> follow(const std::string& uniqueID);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace valtor
