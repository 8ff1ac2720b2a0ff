#include "bus/PellInternalClientRxThread.h"

#include <cerrno>
#include <exception>
#include <new>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/PollWait.h"
#include "app/util/Warnings.h"

namespace valtor {

namespace {

// What a socket holds that nobody has read, in bytes.
int unreadBytes(int descriptor) {
  int count = 0;
  return ioctl(descriptor, FIONREAD, &count) == 0 ? count : 0;
}

}  // namespace

PellInternalClientRxThread::PellInternalClientRxThread(const Parts& parts, uint32_t queueLimit)
    : MyThreadClass("PellInternalRxClient"), parts_(parts), queueLimit_(queueLimit) {}

void PellInternalClientRxThread::InternalThreadEntry() {
  const ClientThreadScope scope(parts_.host);
  parts_.host.waitForOwner();
  lastKeepAlive_ = Clock::now();
  while (goesOn()) {
    try {
      parts_.host.repeatWhatFailed();
      keepConnected();
      if (goesOn()) {
        readOnce();
      }
    } catch (const std::exception& error) {
      // A hook or an allocation failed, the login perhaps did not go out: a link that stands is
      // given up. What its socket holds is read still, all that was read before is in the queue.
      // Nothing here may allocate: there may be no memory still.
      parts_.link.shutdownSocket();
      syslog(LOG_ERR, "PellInternalRxThread: %.1024s: %s\n", parts_.name.c_str(), error.what());
      parts_.closing.sleep(parts_.timing.reconnectDelay);
    }
  }
  syslog(LOG_DEBUG, "PellInternalRxThread exit.\n");
}

bool PellInternalClientRxThread::goesOn() { return isRunning() && !parts_.closing.begun(); }

void PellInternalClientRxThread::keepConnected() {
  while (goesOn() && parts_.link.state() != 1) {
    // A node that accepts and hangs up at once must not cause a storm of attempts.
    parts_.closing.sleep(
        std::chrono::duration_cast<std::chrono::microseconds>(nextAttempt_ - Clock::now()));
    if (!goesOn()) {
      return;
    }
    nextAttempt_ = Clock::now() + parts_.timing.reconnectDelay;
    if (parts_.host.attemptConnection(parts_.timing.attempt) == 0) {
      timeoutCount_ = 0;
    } else {
      nextAttempt_ = Clock::now() + parts_.timing.reconnectDelay;
    }
  }
}

void PellInternalClientRxThread::readOnce() {
  const int descriptor = parts_.link.descriptor();
  if (descriptor <= 0) {
    parts_.host.linkChanged(0, "invalid sockfd");
    syslog(LOG_ERR, "PellInternalClient, invalid sockfd.");
    return;
  }
  if (queueLimit_ == 0 && !pauseWhileFull(descriptor)) {
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
  if (queueLimit_ == 0 || parts_.queue.hasRoom({queueLimit_})) {
    keep(length);
  } else {
    syslog(LOG_WARNING,
           "PellInternalRxThread: WARNING! Received messages exceed RX max queue size %d!\n",
           static_cast<int>(queueLimit_));
  }
  const auto now = Clock::now();
  if (now - lastKeepAlive_ > parts_.timing.keepAlive) {
    lastKeepAlive_ = now;
    sendKeepAlive();
  }
}

// Without these bytes the parser would go on in the middle of a frame, so nothing is read before
// there is memory for them. TCP slows whoever sends meanwhile.
void PellInternalClientRxThread::keep(std::size_t length) {
  constexpr std::chrono::milliseconds kPause{20};
  constexpr std::chrono::seconds kToldFor{10};
  while (goesOn()) {
    try {
      parts_.queue.push({parts_.link.number(), std::string(buffer_.data(), length)});
      return;
    } catch (const std::bad_alloc&) {
      // Without an allocation: there may be no memory still.
      if (Clock::now() >= nextTold_) {
        nextTold_ = Clock::now() + kToldFor;
        syslog(LOG_ERR,
               "PellInternalRxThread: %.1024s: no memory for what was read, reading waits.\n",
               parts_.name.c_str());
      }
      parts_.closing.sleep(kPause);
    }
  }
}

// TCP slows whoever sends meanwhile. The link's end is seen all the same. False when reading cannot
// go on.
bool PellInternalClientRxThread::pauseWhileFull(int descriptor) {
  if (parts_.queue.hasRoom({kPauseChunks, kPauseBytes})) {
    return true;
  }
  countWarning(Warning::ReadingPaused);
  syslog(LOG_WARNING,
         "PellInternalRxThread: %.1024s: %u chunks or %zu bytes wait to be handled, reading "
         "pauses.\n",
         parts_.name.c_str(), kPauseChunks, kPauseBytes);
  // Half of the queue, so that an episode is one pause and one warning, not one per chunk. That
  // half keeps the message-queue thread busy for longer than a slice, so looking for room now and
  // then costs no throughput.
  constexpr std::chrono::milliseconds kSlice{20};
  while (goesOn() && !parts_.queue.hasRoom({kPauseChunks / 2, kPauseBytes / 2})) {
    if (pollUntil(descriptor, POLLRDHUP, Clock::now() + kSlice) != 0) {
      if (goesOn()) {
        syslog(LOG_WARNING,
               "PellInternalRxThread: %.1024s: the link ended while reading paused, %d bytes of it "
               "were not read.\n",
               parts_.name.c_str(), unreadBytes(descriptor));
        handleEnd(descriptor);
      }
      return false;
    }
  }
  return goesOn();
}

// Every end begins with the shutdown of the socket: who waits for room on it, and holds the send
// lock meanwhile, gives up at once.
void PellInternalClientRxThread::handleEnd(int descriptor) {
  parts_.link.shutdownSocket();
  parts_.host.linkChanged(0, "Socket hung up");
  syslog(LOG_WARNING, "PellInternalClient: socket %d hung up\n", descriptor);
  parts_.link.closeSocket();
}

void PellInternalClientRxThread::handleTimeout(int descriptor) {
  if (unreadBytes(descriptor) > 0) {
    return;  // it came just now: the other side is not silent
  }
  ++timeoutCount_;
  if (timeoutCount_ >= kDeadTimeouts) {
    parts_.link.shutdownSocket();
    parts_.host.linkChanged(0, "no resp timeout");
    syslog(LOG_WARNING, "PellInternalClient: socket %d no response. Closing.\n", descriptor);
    parts_.link.closeSocket();
  } else if (timeoutCount_ >= kKeepAliveTimeouts) {
    lastKeepAlive_ = Clock::now();
    sendKeepAlive();
  }
}

void PellInternalClientRxThread::handleError(int error) {
  parts_.link.shutdownSocket();
  parts_.host.linkChanged(0, "recv error");
  syslog(LOG_ERR, "PellInternalClient recv error: %s\n", errnoText(error).c_str());
  parts_.link.closeSocket();
  parts_.link.showDescriptor(0);
}

void PellInternalClientRxThread::sendKeepAlive() {
  if (parts_.host.sendKeepAlive()) {
    return;
  }
  const int descriptor = parts_.link.shownDescriptor();
  parts_.link.shutdownSocket();
  parts_.host.linkChanged(0, "send ACK req error");
  syslog(LOG_WARNING, "PellInternalClient: socket %d error sending ACK request. Closing.\n",
         descriptor);
  parts_.link.closeSocket();
}

}  // namespace valtor
