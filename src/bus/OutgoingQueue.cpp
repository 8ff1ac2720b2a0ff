#include "bus/OutgoingQueue.h"

#include <utility>

#include "app/util/Watchdog.h"

namespace valtor {

void OutgoingQueue::open(uint32_t link) {
  const Locked lock(lock_);
  link_ = link;
}

std::size_t OutgoingQueue::close() {
  // In place, since even an empty deque allocates: whoever ends a link must not fail.
  const Locked lock(lock_);
  const std::size_t dropped = frames_.size();
  link_ = 0;
  frames_.clear();
  bytes_ = 0;
  count_ = 0;
  noteChange();
  return dropped;
}

bool OutgoingQueue::fits(const SharedFrame& frame) const {
  return frames_.size() < kMaxFrames && bytes_ + frame->size() <= kMaxBytes;
}

OutgoingQueue::Answer OutgoingQueue::push(const SharedFrame& frame, uint32_t link, bool mayGrow) {
  const Locked lock(lock_);
  if (link_ == 0 || link_ != link) {
    return {Push::Closed, changes_};
  }
  if (!frames_.empty() && !(mayGrow && fits(frame))) {
    return {Push::Full, changes_};
  }
  frames_.push_back({frame, 0});
  bytes_ += frame->size();
  count_ = frames_.size();
  return {Push::Taken, changes_};
}

void OutgoingQueue::waitForChange(uint64_t changes, const std::stop_token& own,
                                  const std::stop_token& caller) {
  const std::stop_callback wakeForCaller(caller, [this] { wake(); });
  const Locked lock(lock_);
  Watchdog::wait(changed_, lock_, own, [&]() VALTOR_REQUIRES(lock_) {
    return changes_ != changes || caller.stop_requested();
  });
}

void OutgoingQueue::wake() {
  const Locked lock(lock_);
  noteChange();
}

void OutgoingQueue::noteChange() {
  ++changes_;
  changed_.notify_all();
}

std::size_t OutgoingQueue::dropNewest() {
  SharedFrame dropped;
  const Locked lock(lock_);
  if (frames_.size() < 2) {
    return 0;
  }
  dropped = std::move(frames_.back().frame);
  frames_.pop_back();
  bytes_ -= dropped->size();
  count_ = frames_.size();
  return dropped->size();
}

OutgoingQueue::Size OutgoingQueue::size() const {
  const Locked lock(lock_);
  return {frames_.size(), bytes_};
}

std::optional<OutgoingQueue::Head> OutgoingQueue::head() const {
  const Locked lock(lock_);
  if (frames_.empty()) {
    return std::nullopt;
  }
  return frames_.front();
}

void OutgoingQueue::advance(std::size_t count) {
  SharedFrame done;
  const Locked lock(lock_);
  if (frames_.empty()) {
    return;
  }
  Head& head = frames_.front();
  head.offset += count;
  if (head.offset < head.frame->size()) {
    return;
  }
  done = std::move(head.frame);
  frames_.pop_front();
  bytes_ -= done->size();
  count_ = frames_.size();
  noteChange();
}

void OutgoingQueue::pushFront(SharedFrame frame, std::size_t offset) {
  const Locked lock(lock_);
  if (link_ == 0) {
    return;
  }
  const std::size_t size = frame->size();
  frames_.push_front({std::move(frame), offset, false});
  bytes_ += size;
  count_ = frames_.size();
}

}  // namespace valtor
