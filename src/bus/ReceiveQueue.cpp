#include "bus/ReceiveQueue.h"

#include <utility>

namespace valtor {

bool ReceiveQueue::push(std::unique_ptr<ReceivedChunk> chunk, std::size_t limit) {
  const Locked lock(lock_);
  if (chunks_.size() >= limit) {
    return false;
  }
  chunks_.push_back(std::move(chunk));
  return true;
}

bool ReceiveQueue::hasRoom(std::size_t limit) const {
  const Locked lock(lock_);
  return chunks_.size() < limit;
}

void ReceiveQueue::waitForRoom(std::size_t limit, const std::function<bool()>& giveUp) {
  const Locked lock(lock_);
  while (chunks_.size() >= limit && !giveUp()) {
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
    const ReceivedChunk& chunk = *chunks_.front();
    if (batch.chunks > 0 && chunk.link != batch.link) {
      break;
    }
    batch.link = chunk.link;
    buffer.insert(buffer.end(), chunk.data.data(), chunk.data.data() + chunk.length);
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
  room_.notify_all();
}

}  // namespace valtor
