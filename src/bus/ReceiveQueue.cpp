#include "bus/ReceiveQueue.h"

#include <new>
#include <utility>

namespace valtor {

void ReceiveQueue::push(ReceivedChunk chunk) {
  const Locked lock(lock_);
  const std::size_t size = chunk.bytes.size();
  chunks_.push_back(std::move(chunk));
  bytes_ += size;
  if (chunks_.size() == 1) {
    filled_.notify_one();
  }
}

bool ReceiveQueue::fits(Limits limits) const {
  return chunks_.size() < limits.chunks && bytes_ < limits.bytes;
}

bool ReceiveQueue::hasRoom(Limits limits) const {
  const Locked lock(lock_);
  return fits(limits);
}

bool ReceiveQueue::waitForChunk(const std::stop_token& stop,
                                std::optional<std::chrono::steady_clock::time_point> until) {
  const Locked lock(lock_);
  const auto ends = [this]() VALTOR_REQUIRES(lock_) { return !chunks_.empty() || woken_; };
  if (until) {
    filled_.wait_until(lock_, stop, *until, ends);
  } else {
    filled_.wait(lock_, stop, ends);
  }
  woken_ = false;
  return !chunks_.empty();
}

void ReceiveQueue::wake() {
  const Locked lock(lock_);
  woken_ = true;
  filled_.notify_one();
}

ReceiveQueue::Batch ReceiveQueue::take(std::vector<char>& buffer, std::size_t byteBound,
                                       uint32_t& drained, uint32_t drainedLimit) {
  Batch batch;
  const Locked lock(lock_);
  while (!chunks_.empty() && buffer.size() <= byteBound) {
    const ReceivedChunk& chunk = chunks_.front();
    if (batch.chunks > 0 && chunk.link != batch.link) {
      break;
    }
    try {
      buffer.insert(buffer.end(), chunk.bytes.begin(), chunk.bytes.end());
    } catch (const std::bad_alloc&) {
      if (batch.chunks == 0) {
        throw;
      }
      break;
    }
    batch.link = chunk.link;
    if (batch.chunks == 0) {
      handled_ = chunk.received;
    }
    bytes_ -= chunk.bytes.size();
    chunks_.pop_front();
    ++batch.chunks;
    if (++drained % drainedLimit == 0) {
      drained = 0;
      batch.limitReached = true;
      break;
    }
  }
  return batch;
}

void ReceiveQueue::finish() {
  const Locked lock(lock_);
  handled_.reset();
}

ReceiveQueue::Figures ReceiveQueue::figures() const {
  const Locked lock(lock_);
  Figures figures{{}, chunks_.size(), bytes_};
  if (handled_ || !chunks_.empty()) {
    figures.delay =
        std::chrono::steady_clock::now() - (handled_ ? *handled_ : chunks_.front().received);
  }
  return figures;
}

void ReceiveQueue::clear() {
  const Locked lock(lock_);
  chunks_.clear();
  bytes_ = 0;
}

}  // namespace valtor
