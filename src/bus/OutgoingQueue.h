#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <stop_token>

#include "app/util/Mutex.h"
#include "bus/message/Frame.h"

namespace valtor {

// The frames that wait to leave over one link, in order. It takes frames only for the link that
// stands; a link that ends takes its frames along.
//
// Any thread may push and ask. The head belongs to whoever holds the link's send lock: only that
// thread takes it, advances it and puts a frame before it. The queue's own lock is a leaf.
class OutgoingQueue {
 public:
  // What waits at most; a frame that meets an empty queue is taken whatever its size.
  static constexpr std::size_t kMaxFrames = 8000;
  static constexpr std::size_t kMaxBytes = std::size_t{32} << 20;

  enum class Push { Taken, Full, Closed };

  struct Head {
    SharedFrame frame;
    std::size_t offset = 0;  // bytes that are out already
    bool forwarded = true;   // appended, not the rest of another frame
  };
  struct Size {
    std::size_t frames = 0;
    std::size_t bytes = 0;
  };

  // Takes frames for that link from now on.
  void open(uint32_t link);
  // Takes none any more and drops what waits; how many frames that were. For the holder of the send
  // lock.
  std::size_t close();

  // Appends a frame if that link still stands. Unless it is empty, the queue refuses a frame when
  // it is full or may not grow. With what has changed so far, for waitForChange().
  struct Answer {
    Push push = Push::Closed;
    uint64_t changes = 0;
  };
  Answer push(const SharedFrame& frame, uint32_t link, bool mayGrow);
  // Blocks until something has changed since that answer (a frame left, the queue was closed or
  // woken) or one of the tokens is stopped, and feeds the watchdog meanwhile.
  void waitForChange(uint64_t changes, const std::stop_token& own, const std::stop_token& caller);
  void wake();

  // Drops the newest frame, if it is not the head too. Its bytes, 0 when none was dropped.
  std::size_t dropNewest();

  bool isEmpty() const { return count_ == 0; }
  Size size() const;

  // For the holder of the send lock.
  std::optional<Head> head() const;
  // So many more bytes of the head are out; with the last one the head is gone.
  void advance(std::size_t count);
  // The rest of a frame, of which offset bytes are out, comes before everything else. The queue has
  // no half-sent head.
  void pushFront(SharedFrame frame, std::size_t offset);

 private:
  bool fits(const SharedFrame& frame) const VALTOR_REQUIRES(lock_);
  void noteChange() VALTOR_REQUIRES(lock_);

  mutable Mutex lock_;
  std::condition_variable_any changed_;
  std::deque<Head> frames_ VALTOR_GUARDED_BY(lock_);
  std::size_t bytes_ VALTOR_GUARDED_BY(lock_) = 0;
  uint64_t changes_ VALTOR_GUARDED_BY(lock_) = 0;
  uint32_t link_ VALTOR_GUARDED_BY(lock_) = 0;  // 0: closed
  std::atomic<std::size_t> count_{0};           // written under lock_
};

}  // namespace valtor
