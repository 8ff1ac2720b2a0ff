#include "bus/PellInternalClientMsgQThread.h"

#include <algorithm>
#include <exception>
#include <malloc.h>
#include <syslog.h>
#include <thread>

#include "app/util/ErrnoText.h"

namespace valtor {

PellInternalClientMsgQThread::PellInternalClientMsgQThread(const Parts& parts)
    : MyThreadClass("PellInternalMsgQClient"), parts_(parts) {}

void PellInternalClientMsgQThread::InternalThreadEntry() {
  const ClientThreadScope scope(parts_.host);
  const Watchdog::Feeder feeder(parts_.watchdog);
  while (isRunning() && !parts_.closing.begun()) {
    try {
      Watchdog::feed();
      if (parts_.queue.waitForChunk(parts_.closing.token(), wakeUp())) {
        handleBatch();
      }
      trimMemory();
      catchUp();
    } catch (const std::exception& error) {
      // No chunk could be taken, or what is behind not be caught up with: nothing is lost, and the
      // parser stays where it is in the stream. Nothing here may allocate: there may be no memory
      // still.
      if (Clock::now() >= nextTold_) {
        nextTold_ = Clock::now() + kToldFor;
        syslog(LOG_ERR, "PellInternalMsgQThread: %.1024s: %s\n", parts_.name.c_str(), error.what());
      }
      batch_.clear();
      parts_.queue.finish();
      parts_.closing.sleep(kAfterFault);
    }
  }
}

// When something is to be done without a chunk.
std::optional<PellInternalClientMsgQThread::Clock::time_point>
PellInternalClientMsgQThread::wakeUp() const {
  std::optional<Clock::time_point> first;
  for (const auto& due : {Watchdog::due(), trimDue_, quietDue_, catchUpDue_}) {
    if (due && (!first || *due < *first)) {
      first = due;
    }
  }
  return first;
}

void PellInternalClientMsgQThread::handleBatch() {
  const ReceiveQueue::Batch taken = parts_.queue.take(batch_, kBatchBytes, drained_, kDrainedLimit);
  if (taken.limitReached) {
    syslog(LOG_WARNING, "Client message loops limit %u reached. breaking.", kDrainedLimit);
  }
  if (taken.chunks == 0) {
    return;
  }
  if (taken.link != link_) {
    // Half a frame of the old link would swallow the first messages of the new one.
    parts_.parser.reset();
    link_ = taken.link;
  }
  parts_.parser.parse(batch_.data(), batch_.size());
  if (parts_.parser.takeLost()) {
    parts_.host.messagesLost();
  }
  parts_.queue.finish();
  // Never so large as things are: a batch ends at 100 chunks of at most 15,360 bytes.
  if (batch_.size() <= kBatchBytes) {
    batch_.clear();
    if (batch_.capacity() > kKeptBytes && parts_.queue.figures().chunks == 0) {
      batch_ = std::vector<char>();
    }
  } else {
    syslog(LOG_WARNING, "Client message queue buffer size is %zu. Reclaiming memory.",
           batch_.size());
    batch_ = std::vector<char>();  // assigning {} would keep the storage
  }
  std::this_thread::sleep_for(kBatchPause);
}

void PellInternalClientMsgQThread::catchUp() {
  if (parts_.closing.begun()) {
    return;  // what is behind ends, too
  }
  if (catchUpDue_ && Clock::now() >= *catchUpDue_) {
    catchUpDue_.reset();
    catchUpWait_ = std::min(2 * catchUpWait_, kMostWaits);
    calmFrom_ = Clock::now() + catchUpWait_ * parts_.timing.reconnectDelay;
    parts_.host.catchUp();
  }
  if (parts_.host.isBehind() && !catchUpDue_) {
    // What was asked for may fail only with its answer.
    if (Clock::now() >= calmFrom_) {
      catchUpWait_ = 1;
    }
    catchUpDue_ = Clock::now() + catchUpWait_ * parts_.timing.reconnectDelay;
  }
}

// The tree of a body of 20 MB takes hundreds of megabytes, and the allocator would keep them. What
// smaller ones leave it may keep for the next, which costs half the time then, but not for ever.
void PellInternalClientMsgQThread::trimMemory() {
  const std::size_t longest = parts_.parser.takeLongest();
  if (longest > kLargePayload && !trimDue_) {
    trimDue_ = std::max(nextTrim_, Clock::now());
  }
  if (longest > kKeptBytes) {
    quietDue_ = Clock::now() + kQuiet;
  }
  const auto isDue = [now = Clock::now()](const auto& due) { return due && now >= *due; };
  if (isDue(trimDue_) || isDue(quietDue_)) {
    malloc_trim(0);
    trimDue_.reset();
    quietDue_.reset();
    nextTrim_ = Clock::now() + kTrimInterval;
  }
}

}  // namespace valtor
