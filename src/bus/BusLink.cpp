#include "bus/BusLink.h"

#include <cerrno>
#include <new>
#include <sys/socket.h>
#include <thread>
#include <utility>

#include "app/util/Mutex.h"

namespace valtor {

std::optional<std::vector<BusLink::SendResult>> BusLink::open(
    UniqueDescriptor socket, int retryBudget,
    const std::function<std::vector<std::string>()>& firstFrames) {
  const Locked lock(sendLock_);
  if (closing_) {
    return std::nullopt;
  }
  socket_ = std::move(socket);
  descriptor_ = socket_.get();
  shownDescriptor_ = socket_.get();
  ++number_;
  tail_.clear();
  state_ = 1;
  std::vector<SendResult> results;
  for (const std::string& first : firstFrames()) {
    results.push_back(write(first, retryBudget));
  }
  return results;
}

BusLink::SendResult BusLink::send(const std::string& frame, uint32_t link, int retryBudget) {
  const Locked lock(sendLock_);
  if (closing_ || state_ != 1 || number_ != link || !socket_.valid()) {
    return {};
  }
  return write(frame, retryBudget);
}

BusLink::SendResult BusLink::write(const std::string& frame, int retryBudget) {
  int budget = retryBudget;
  int fullCount = 0;
  if (!tail_.empty()) {
    SendResult rest = writeBytes(tail_.data(), tail_.size(), budget, fullCount);
    tail_.erase(0, rest.sent);
    if (rest.outcome != Send::Sent) {
      rest.sent = 0;
      rest.size = frame.size();
      return rest;
    }
  }
  const SendResult result = writeBytes(frame.data(), frame.size(), budget, fullCount);
  if (result.outcome != Send::Sent && result.sent > 0) {
    try {
      tail_ = frame.substr(result.sent);
    } catch (const std::bad_alloc&) {
      ::shutdown(socket_.get(), SHUT_RDWR);  // without the rest no further frame can follow
      throw;
    }
  }
  return result;
}

BusLink::SendResult BusLink::writeBytes(const char* data, std::size_t size, int& budget,
                                        int& fullCount) {
  SendResult result;
  result.size = size;
  while (result.sent < size && budget > 0) {
    if (closing_) {
      result.outcome = Send::NotConnected;
      return result;
    }
    const ssize_t count =
        ::send(socket_.get(), data + result.sent, size - result.sent, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      result.sent += static_cast<std::size_t>(count);
      std::this_thread::sleep_for(kPause);
    } else if (errno == EAGAIN) {
      std::this_thread::sleep_for(kFullPause);
      if (++fullCount % 10 == 0) {
        --budget;
      }
    } else if (errno != EINTR) {
      result.outcome = Send::Failed;
      result.error = errno;
      return result;
    }
  }
  result.outcome = result.sent == size ? Send::Sent : Send::BudgetExhausted;
  return result;
}

void BusLink::setState(int state) {
  const Locked lock(sendLock_);
  state_ = state;
}

void BusLink::beginClosing() {
  closing_ = true;  // before the lock: whoever holds it while it waits for a full socket gives up
  shutdownSocket();
}

void BusLink::shutdownSocket() {
  const Locked lock(sendLock_);
  if (socket_.valid()) {
    // A bare close would leave a reader blocked and free the number for somebody else.
    ::shutdown(socket_.get(), SHUT_RDWR);
  }
}

void BusLink::closeSocket() {
  const Locked lock(sendLock_);
  descriptor_ = 0;
  socket_.reset();
}

}  // namespace valtor
