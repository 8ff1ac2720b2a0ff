#include "bus/PellInternalClientMsgQThread.h"

#include <exception>
#include <syslog.h>

#include "app/util/ErrnoText.h"
#include "bus/PellInternalClient.h"

namespace valtor {

PellInternalClientMsgQThread::PellInternalClientMsgQThread(PellInternalClient& client)
    : MyThreadClass("PellInternalMsgQClient"), client_(client) {}

void PellInternalClientMsgQThread::InternalThreadEntry() {
  const PellInternalClient::OwnThread mark(client_);
  while (isRunning() && !client_.isClosing()) {
    bool found = false;
    try {
      found = handleBatch();
    } catch (const std::exception& error) {
      // Without an allocation: there may be no memory still.
      syslog(LOG_ERR, "PellInternalMsgQThread: received bytes of %.1024s are lost: %s\n",
             client_.name_.c_str(), error.what());
      batch_ = std::vector<char>();
      client_.parser_.reset();
    }
    client_.sleepUnlessClosing(found ? kBatchPause : kIdlePause);
  }
}

bool PellInternalClientMsgQThread::handleBatch() {
  const ReceiveQueue::Batch taken =
      client_.queue_.take(batch_, kBatchBytes, drained_, kDrainedLimit);
  if (taken.limitReached) {
    syslog(LOG_WARNING, "Client message loops limit %u reached. breaking.", kDrainedLimit);
  }
  if (taken.chunks == 0) {
    return false;
  }
  if (taken.link != link_) {
    // Half a frame of the old link would swallow the first messages of the new one.
    client_.parser_.reset();
    link_ = taken.link;
  }
  client_.parser_.parse(batch_.data(), batch_.size());
  if (batch_.size() <= kBatchBytes) {
    batch_.clear();
  } else {
    syslog(LOG_WARNING, "Client message queue buffer size is %zu. Reclaiming memory.",
           batch_.size());
    batch_ = std::vector<char>();  // assigning {} would keep the storage
  }
  return true;
}

}  // namespace valtor
