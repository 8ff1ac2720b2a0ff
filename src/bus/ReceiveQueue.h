#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "app/util/Mutex.h"

namespace valtor {

// The bytes of one successful read, and the number of the link that they came over.
struct ReceivedChunk {
  uint32_t link = 0;
  std::string bytes;
  std::chrono::steady_clock::time_point received = std::chrono::steady_clock::now();
};

// What the receive thread has read and the message-queue thread has not yet taken, in order. Its
// lock is a leaf, held only while chunks move.
class ReceiveQueue {
 public:
  struct Batch {
    uint32_t chunks = 0;        // how many chunks were taken
    uint32_t link = 0;          // the link that all of them came over
    bool limitReached = false;  // ended by the limit of the drained count
  };

  // What a queue holds at most. The chunk that reaches a limit still fits.
  struct Limits {
    std::size_t chunks = SIZE_MAX;
    std::size_t bytes = SIZE_MAX;
  };

  // Appends the chunk, whatever waits already. When memory runs out nothing has changed.
  void push(ReceivedChunk chunk);
  // Whether neither limit is reached.
  bool hasRoom(Limits limits) const;
  // Blocks until a chunk waits, wake() was called, the token is stopped, or it is that late.
  // Whether a chunk waits.
  bool waitForChunk(const std::stop_token& stop,
                    std::optional<std::chrono::steady_clock::time_point> until);
  // Ends the wait of this moment, or the next one.
  void wake();

  // Appends the front chunks' bytes to the buffer while it holds at most byteBound bytes. Ends
  // early before the first chunk of another link, before one that the buffer finds no memory for,
  // and when the drained count, which goes on from call to call, reaches drainedLimit and starts
  // again from 0. Throws, and takes nothing, when there is no memory for the first chunk.
  Batch take(std::vector<char>& buffer, std::size_t byteBound, uint32_t& drained,
             uint32_t drainedLimit);

  // What was taken has been handled.
  void finish();

  void clear();

  struct Figures {
    std::chrono::steady_clock::duration delay{0};  // the age of the oldest that is not handled yet
    std::size_t chunks = 0;                        // that wait
    std::size_t bytes = 0;
  };
  Figures figures() const;

 private:
  bool fits(Limits limits) const VALTOR_REQUIRES(lock_);

  mutable Mutex lock_;
  std::condition_variable_any filled_;
  std::deque<ReceivedChunk> chunks_ VALTOR_GUARDED_BY(lock_);
  std::size_t bytes_ VALTOR_GUARDED_BY(lock_) = 0;  // those of all chunks
  bool woken_ VALTOR_GUARDED_BY(lock_) = false;
  // When the first chunk of those that are being handled came.
  std::optional<std::chrono::steady_clock::time_point> handled_ VALTOR_GUARDED_BY(lock_);
};

}  // namespace valtor
