#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/util/Mutex.h"
#include "bus/message/PellInternalMessage.h"
#include "peers/Crossings.h"
#include "peers/FilterResult.h"

namespace valtor {

// Shows the messages of one router to whoever follows it: one JSON object a line, both ways,
// blocked ones with their rule. Each follower has a bounded ring of lines; what does not fit is
// left out, the oldest first, and counted. While nobody follows, a message costs one look at a
// number. Any thread may use it; its lock is a leaf.
class TrafficTap {
 public:
  static constexpr std::size_t kMaxLines = 512;
  static constexpr std::size_t kMaxBytes = std::size_t{1} << 20;
  static constexpr std::size_t kShownBody = 1024;  // bytes of a body that a line shows

  // One who follows. Belongs to whoever asked; the tap forgets it with unfollow().
  struct Follower {
    std::string uniqueID;
    std::function<void()> wake;  // called under the tap's lock when lines come to an empty ring
    std::deque<std::string> lines;
    std::size_t bytes = 0;
    std::size_t missed = 0;
  };
  using FollowerPtr = std::shared_ptr<Follower>;

  FollowerPtr follow(std::string uniqueID, std::function<void()> wake);
  void unfollow(const FollowerPtr& follower);
  // The lines that wait, in one text; says how many were left out.
  std::string take(Follower& follower);

  bool isFollowed() const { return followers_ > 0; }
  // A message of the router of that unique ID, and what its filter said.
  void offer(const std::string& uniqueID, Direction direction, const PellInternalMessage& message,
             const FilterResult& result);

 private:
  mutable Mutex lock_;
  std::vector<FollowerPtr> list_ VALTOR_GUARDED_BY(lock_);
  std::atomic<int> followers_{0};
};

}  // namespace valtor
