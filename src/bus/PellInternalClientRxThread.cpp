#include "bus/PellInternalClientRxThread.h"

#include <cerrno>
#include <exception>
#include <sys/socket.h>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "bus/PellInternalClient.h"
#include "bus/message/PellInternalMessage.h"

namespace valtor {

PellInternalClientRxThread::PellInternalClientRxThread(PellInternalClient& client,
                                                       uint32_t queueLimit)
    : MyThreadClass("PellInternalRxClient"), client_(client), queueLimit_(queueLimit) {}

void PellInternalClientRxThread::InternalThreadEntry() {
  const PellInternalClient::OwnThread mark(client_);
  lastKeepAlive_ = Clock::now();
  while (goesOn()) {
    try {
      client_.repeatWhatFailed();
      keepConnected();
      if (goesOn()) {
        readOnce();
      }
    } catch (const std::exception& error) {
      // A hook or an allocation failed. Received bytes may be lost, so a link that stands is given
      // up; the next one starts clean. Nothing here may allocate: there may be no memory still.
      client_.link_.shutdownSocket();
      syslog(LOG_ERR, "PellInternalRxThread: %.1024s: %s\n", client_.name_.c_str(), error.what());
      client_.sleepUnlessClosing(client_.timing().reconnectDelay);
    }
  }
  syslog(LOG_DEBUG, "PellInternalRxThread exit.\n");
}

bool PellInternalClientRxThread::goesOn() { return isRunning() && !client_.isClosing(); }

void PellInternalClientRxThread::keepConnected() {
  const auto& timing = client_.timing();
  while (goesOn() && !client_.isConnected()) {
    // A node that accepts and hangs up at once must not cause a storm of attempts.
    client_.sleepUnlessClosing(
        std::chrono::duration_cast<std::chrono::microseconds>(nextAttempt_ - Clock::now()));
    if (!goesOn()) {
      return;
    }
    nextAttempt_ = Clock::now() + timing.reconnectDelay;
    if (client_.attemptConnection(timing.attempt) == 0) {
      timeoutCount_ = 0;
    } else {
      nextAttempt_ = Clock::now() + timing.reconnectDelay;
    }
  }
}

void PellInternalClientRxThread::readOnce() {
  const int descriptor = client_.link_.descriptor();
  if (descriptor <= 0) {
    client_.setConnectionState(0, "invalid sockfd");
    syslog(LOG_ERR, "PellInternalClient, invalid sockfd.");
    return;
  }
  const ssize_t count = ::recv(descriptor, buffer_.data(), buffer_.size(), 0);
  const int error = errno;
  if (count > 0) {
    handleData(static_cast<std::size_t>(count));
  } else if (!goesOn()) {
    return;
  } else if (count == 0) {
    handleEnd(descriptor);
  } else if (error == EAGAIN) {
    handleTimeout(descriptor);
  } else if (error != EINTR) {
    handleError(error);
  }
}

void PellInternalClientRxThread::handleData(std::size_t length) {
  timeoutCount_ = 0;
  if (queueLimit_ == 0) {
    pauseWhileFull();
  }
  if (queueLimit_ == 0 || client_.queue_.hasRoom({queueLimit_})) {
    client_.queue_.push({client_.link_.number(), std::string(buffer_.data(), length)});
  } else {
    syslog(LOG_WARNING,
           "PellInternalRxThread: WARNING! Received messages exceed RX max queue size %d!\n",
           static_cast<int>(queueLimit_));
  }
  const auto now = Clock::now();
  if (now - lastKeepAlive_ > client_.timing().keepAlive) {
    lastKeepAlive_ = now;
    sendKeepAlive();
  }
}

void PellInternalClientRxThread::pauseWhileFull() {
  if (client_.queue_.hasRoom({kPauseChunks, kPauseBytes})) {
    return;
  }
  syslog(LOG_WARNING,
         "PellInternalRxThread: %s: %u chunks or %zu bytes wait to be handled, reading pauses.\n",
         nameForLog(client_.name_).c_str(), kPauseChunks, kPauseBytes);
  // Half of the queue, so that an episode is one pause and one warning, not one per chunk.
  client_.queue_.waitForRoom({kPauseChunks / 2, kPauseBytes / 2}, [this] { return !goesOn(); });
}

void PellInternalClientRxThread::handleEnd(int descriptor) {
  client_.setConnectionState(0, "Socket hung up");
  syslog(LOG_WARNING, "PellInternalClient: socket %d hung up\n", descriptor);
  client_.link_.closeSocket();
}

void PellInternalClientRxThread::handleTimeout(int descriptor) {
  ++timeoutCount_;
  if (timeoutCount_ >= kDeadTimeouts) {
    client_.setConnectionState(0, "no resp timeout");
    syslog(LOG_WARNING, "PellInternalClient: socket %d no response. Closing.\n", descriptor);
    client_.link_.closeSocket();
  } else if (timeoutCount_ >= kKeepAliveTimeouts) {
    lastKeepAlive_ = Clock::now();
    sendKeepAlive();
  }
}

void PellInternalClientRxThread::handleError(int error) {
  client_.setConnectionState(0, "recv error");
  syslog(LOG_ERR, "PellInternalClient recv error: %s\n", errnoText(error).c_str());
  client_.link_.closeSocket();
  client_.link_.showDescriptor(0);
}

void PellInternalClientRxThread::sendKeepAlive() {
  if (client_.sendMessage(PellInternalMessage(MessageKind::SET, "")) == 0) {
    return;
  }
  const int descriptor = client_.link_.shownDescriptor();
  client_.setConnectionState(0, "send ACK req error");
  syslog(LOG_WARNING, "PellInternalClient: socket %d error sending ACK request. Closing.\n",
         descriptor);
  client_.link_.closeSocket();
}

}  // namespace valtor
