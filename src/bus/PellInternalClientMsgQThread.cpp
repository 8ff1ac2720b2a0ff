#include "bus/PellInternalClientMsgQThread.h"

#include <exception>
#include <syslog.h>

#include "bus/PellInternalClient.h"

namespace valtor {

PellInternalClientMsgQThread::PellInternalClientMsgQThread(PellInternalClient& client)
    : MyThreadClass("PellInternalMsgQClient"), client_(client) {}

void PellInternalClientMsgQThread::InternalThreadEntry() {
  const PellInternalClient::OwnThread mark(client_);
  while (isRunning() && !client_.isClosing()) {
    const ReceiveQueue::Batch taken =
        client_.queue_.take(batch_, kBatchBytes, drained_, kDrainedLimit);
    if (taken.limitReached) {
      syslog(LOG_WARNING, "Client message loops limit %u reached. breaking.", kDrainedLimit);
    }
    if (taken.chunks > 0) {
      handleBatch(taken.link);
      client_.sleepUnlessClosing(kBatchPause);
    } else {
      client_.sleepUnlessClosing(kIdlePause);
    }
  }
}

void PellInternalClientMsgQThread::handleBatch(uint32_t link) {
  if (link != link_) {
    // Half a frame of the old link would swallow the first messages of the new one.
    client_.parser_.reset();
    link_ = link;
  }
  try {
    client_.parser_.parse(batch_.data(), batch_.size());
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "PellInternalMsgQThread: %zu received bytes are lost: %s\n", batch_.size(),
           error.what());
    client_.parser_.reset();
  }
  if (batch_.size() <= kBatchBytes) {
    batch_.clear();
  } else {
    syslog(LOG_WARNING, "Client message queue buffer size is %zu. Reclaiming memory.",
           batch_.size());
    batch_ = {};
  }
}

}  // namespace valtor
