#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "app/util/Mutex.h"

namespace valtor {

// The bytes of one successful read, and the number of the link that they came over.
struct ReceivedChunk {
  static constexpr int kCapacity = 15360;

  int32_t length = 0;
  uint32_t link = 0;
  std::array<char, kCapacity> data;
};

// What the receive thread has read and the message-queue thread has not yet taken, in order. Its
// lock is a leaf, held only while chunks move. A chunk is allocated once and moves as a pointer.
class ReceiveQueue {
 public:
  struct Batch {
    uint32_t chunks = 0;        // how many chunks were taken
    uint32_t link = 0;          // the link that all of them came over
    bool limitReached = false;  // ended by the limit of the drained count
  };

  // Appends the chunk unless the queue holds limit chunks already; whether it was appended.
  bool push(std::unique_ptr<ReceivedChunk> chunk, std::size_t limit);

  // Blocks while the queue holds limit chunks, until there is room or giveUp answers true (asked
  // under the lock, again after every wake()).
  void waitForRoom(std::size_t limit, const std::function<bool()>& giveUp);
  bool hasRoom(std::size_t limit) const;
  void wake();

  // Appends the front chunks' bytes to the buffer while it holds at most byteBound bytes. Ends
  // early before the first chunk of another link, and when the drained count, which goes on from
  // call to call, reaches drainedLimit and starts again from 0.
  Batch take(std::vector<char>& buffer, std::size_t byteBound, uint32_t& drained,
             uint32_t drainedLimit);

  void clear();

 private:
  mutable Mutex lock_;
  std::condition_variable_any room_;
  std::deque<std::unique_ptr<ReceivedChunk>> chunks_ VALTOR_GUARDED_BY(lock_);
};

}  // namespace valtor
