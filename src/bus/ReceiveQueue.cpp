#include "bus/ReceiveQueue.h"

#include <utility>

namespace valtor {

void ReceiveQueue::push(ReceivedChunk chunk) {
  const Locked lock(lock_);
  const std::size_t size = chunk.bytes.size();
  chunks_.push_back(std::move(chunk));
  bytes_ += size;
}

bool ReceiveQueue::fits(Limits limits) const {
  return chunks_.size() < limits.chunks && bytes_ < limits.bytes;
}

bool ReceiveQueue::hasRoom(Limits limits) const {
  const Locked lock(lock_);
  return fits(limits);
}

void ReceiveQueue::waitForRoom(Limits limits, const std::function<bool()>& giveUp) {
  const Locked lock(lock_);
  while (!fits(limits) && !giveUp()) {
    room_.wait(lock_);
  }
}

void ReceiveQueue::wake() {
  const Locked lock(lock_);
  room_.notify_all();
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
    batch.link = chunk.link;
    buffer.insert(buffer.end(), chunk.bytes.begin(), chunk.bytes.end());
    bytes_ -= chunk.bytes.size();
    chunks_.pop_front();
    ++batch.chunks;
    if (++drained % drainedLimit == 0) {
      drained = 0;
      batch.limitReached = true;
      break;
    }
  }
  room_.notify_all();
  return batch;
}

void ReceiveQueue::clear() {
  const Locked lock(lock_);
  chunks_.clear();
  bytes_ = 0;
  room_.notify_all();
}

}  // namespace valtor
