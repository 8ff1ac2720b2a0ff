#include "bus/BusLink.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/sockios.h>
#include <new>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <utility>

#include "app/util/PollWait.h"
#include "app/util/Warnings.h"
#include "app/util/Watchdog.h"
#include "bus/FrameSender.h"

namespace valtor {

namespace {

// A socket that says it has room and then refuses is left alone for this long.
constexpr std::chrono::microseconds kFullPause{100};

}  // namespace

// Holds the send lock. Whoever lets it go tells the sender, which only tries it.
class VALTOR_SCOPED_CAPABILITY BusLink::SendScope {
 public:
  explicit SendScope(BusLink& link) VALTOR_ACQUIRE(link.sendLock_) : link_(link) {
    link_.sendLock_.lock();
  }
  SendScope(BusLink& link, std::adopt_lock_t) VALTOR_REQUIRES(link.sendLock_) : link_(link) {}
  ~SendScope() VALTOR_RELEASE() {
    link_.sendLock_.unlock();
    link_.tellSender();
  }
  SendScope(const SendScope&) = delete;
  SendScope& operator=(const SendScope&) = delete;

 private:
  BusLink& link_;
};

BusLink::BusLink(std::string name, std::chrono::milliseconds budget,
                 std::shared_ptr<ClosingSignal> closing)
    : name_(std::move(name)), budget_(budget), closing_(std::move(closing)) {}

std::optional<std::vector<BusLink::SendResult>> BusLink::open(
    UniqueDescriptor socket, const std::function<std::vector<SharedFrame>()>& firstFrames) {
  const SendScope scope(*this);
  {
    const Locked lock(socketLock_);
    if (closing_->begun()) {
      return std::nullopt;
    }
    socket_ = std::move(socket);
    descriptor_ = socket_.get();
    shownDescriptor_ = socket_.get();
    ended_ = false;
  }
  queue_.close();
  queue_.open(++number_);
  noteTaken();
  headFullSince_.reset();
  passed_ = false;
  nextSend_ = {};
  state_ = 1;
  std::vector<SendResult> results;
  try {
    for (const SharedFrame& first : firstFrames()) {
      passed_ = false;  // frames may wait already: the link is seen to stand since state_
      results.push_back(write(first, {}));
    }
  } catch (...) {
    shutdownSocket();  // nobody may send before them
    throw;
  }
  return results;
}

bool BusLink::stands(uint32_t link) const {
  return !isOver() && state_ == 1 && number_ == link && descriptor_ > 0;
}

BusLink::SendResult BusLink::send(const SharedFrame& frame, uint32_t link,
                                  const std::stop_token& caller) {
  SendResult result;
  if (!sendLock_.lock(caller)) {
    return result;
  }
  {
    const SendScope scope(*this, std::adopt_lock);
    if (stands(link)) {
      result = write(frame, caller);
    }
  }
  sayWhatChanged();
  return result;
}

BusLink::SendResult BusLink::write(const SharedFrame& frame, const std::stop_token& caller) {
  Patience patience{budget_, caller};
  SendResult rest = finishHead(patience);
  if (rest.outcome == Send::Sent && passed_) {
    giveTurn(patience);
    rest = finishHead(patience);
  }
  if (rest.outcome != Send::Sent) {
    rest.sent = 0;
    rest.size = frame->size();
    return rest;
  }
  passed_ = true;
  return writeBytes(frame, nullptr, patience);
}

// Nothing may come between the parts of a frame.
BusLink::SendResult BusLink::finishHead(Patience& patience) {
  const auto head = queue_.head();
  if (head && head->offset > 0) {
    return writeBytes(head->frame, &*head, patience);
  }
  SendResult none;
  none.outcome = Send::Sent;
  return none;
}

// Who sends past the queue again and again must not keep it waiting: they take turns, and a turn is
// something that the socket takes, or all the time that there is.
void BusLink::giveTurn(Patience& patience) {
  passed_ = false;
  const auto head = queue_.head();
  while (head && patience.left > std::chrono::microseconds::zero()) {
    waitForPace();
    if (isOver() || patience.caller.stop_requested() || sendHead(*head) || errno != EAGAIN) {
      return;
    }
    waitForRoom(patience.left);
  }
}

// Sends the frame, or the rest of the queue's head, whose frame it is then.
BusLink::SendResult BusLink::writeBytes(const SharedFrame& frame, const OutgoingQueue::Head* head,
                                        Patience& patience) {
  SendResult result;
  result.size = frame->size();
  result.sent = head != nullptr ? head->offset : 0;
  while (result.sent < result.size && result.outcome == Send::NotConnected) {
    waitForPace();
    if (isOver() || patience.caller.stop_requested()) {
      break;
    }
    const ssize_t count = sendOnce(frame, result.sent);
    if (count >= 0) {
      if (head != nullptr) {
        headIsOut(*head, result.sent, static_cast<std::size_t>(count));
      }
      patience.left = budget_;  // who takes a long frame slowly is not given up for its length
      result.sent += static_cast<std::size_t>(count);
    } else if (errno != EAGAIN) {
      result.error = errno;
      result.outcome = Send::Failed;
    } else if (patience.left <= std::chrono::microseconds::zero()) {
      result.outcome = Send::BudgetExhausted;
    } else {
      waitForRoom(patience.left);
    }
  }
  if (result.sent == result.size) {
    result.outcome = Send::Sent;
    if (head == nullptr) {
      sent_.add(result.size);
    }
  } else if (result.sent > 0 && head == nullptr) {
    try {
      queue_.pushFront(frame, result.sent);
      result.kept = true;
      headFullSince_.reset();
    } catch (const std::bad_alloc&) {
      shutdownSocket();  // without the rest no further frame can follow
      throw;
    }
  }
  return result;
}

// What send(2) says; a success sets the pace.
ssize_t BusLink::sendOnce(const SharedFrame& frame, std::size_t offset) {
  ssize_t count = 0;
  do {
    count = ::send(descriptor_, frame->data() + offset, frame->size() - offset,
                   MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (count < 0 && errno == EINTR);
  if (count >= 0) {
    if (fullSeen_ && watchdog_ != nullptr) {
      watchdog_->progress();
    }
    nextSend_ = Clock::now() + kPace;
    noteTaken();
  } else if (errno == EAGAIN) {
    noteFull();
    errno = EAGAIN;
  }
  return count;
}

// A shut down socket ends both waits at once.
void BusLink::waitForPace() const {
  if (Clock::now() < nextSend_) {
    pollUntil(descriptor_, 0, nextSend_);
    Watchdog::feed();  // one request may announce ten thousand connection points
  }
}

void BusLink::waitForRoom(std::chrono::microseconds& left) const {
  const auto begin = Clock::now();
  const auto longest = std::min<std::chrono::microseconds>(left, kRoomSlice);
  pollUntil(descriptor_, POLLOUT, begin + longest);
  Watchdog::feed();
  if (Clock::now() - begin < kFullPause) {
    pollUntil(descriptor_, 0, begin + kFullPause);
  }
  left -= std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
}

void BusLink::noteTaken() {
  fullFor_ = {};
  fullSeen_.reset();
  stalled_ = false;
}

// Takes nothing: no send succeeded for a while, and of what the socket holds nothing was
// acknowledged.
void BusLink::noteFull() {
  const auto now = Clock::now();
  int unsent = 0;
  ioctl(descriptor_, SIOCOUTQ, &unsent);
  if (!fullSeen_ || unsent != unsent_) {
    noteTaken();
    unsent_ = unsent;
  } else {
    fullFor_ += std::min<Clock::duration>(now - *fullSeen_, kLook);
  }
  fullSeen_ = now;
  if (fullFor_ >= kStall) {
    // Nobody waits for it, so seeing late that it goes on costs nobody anything.
    nextTry_ = now + kLook;
    if (!stalled_.exchange(true)) {
      queue_.wake();
    }
  }
}

BusLink::Send BusLink::forward(const SharedFrame& frame, const std::stop_token& caller) {
  const auto sender = sender_.lock();
  if (sender == nullptr || !sender->isStarted()) {
    const SendResult result = send(frame, number_, caller);
    if (result.outcome == Send::Sent) {
      forwarded_.add(result.size);
    }
    report(result);
    return result.outcome;
  }
  const Send outcome = enqueue(frame, *sender, caller);
  if (outcome != Send::Sent) {
    return outcome;
  }
  std::optional<SendResult> trouble;
  if (sendLock_.tryLock()) {
    const Locked lock(sendLock_, std::adopt_lock);
    Wait unused;
    trouble = drainHead(unused);
  }
  tellSender();
  sayWhatChanged();
  if (trouble) {
    report(*trouble);
  }
  return outcome;
}

// Every frame passes through the queue, so that none overtakes another.
BusLink::Send BusLink::enqueue(const SharedFrame& frame, FrameSender& sender,
                               const std::stop_token& caller) {
  const uint32_t link = number_;
  while (!isOver() && state_ == 1) {
    const bool mayGrow = !sender.budget().isExceeded() || (!stalled_ && sender.makeRoom());
    const OutgoingQueue::Answer answer = queue_.push(frame, link, mayGrow);
    if (answer.push == OutgoingQueue::Push::Taken) {
      return Send::Sent;
    }
    if (answer.push == OutgoingQueue::Push::Closed) {
      break;
    }
    if (stalled_ || caller.stop_requested()) {
      noteDropped();
      return Send::Sent;
    }
    sender.add(shared_from_this());
    queue_.waitForChange(answer.changes, closing_->token(), caller);
  }
  return Send::NotConnected;
}

BusLink::Wait BusLink::drain() {
  Wait wait;
  if (!sendLock_.tryLock()) {
    missed_ = true;
    if (!sendLock_.tryLock()) {
      wait.reason = Wait::For::Holder;
      return wait;
    }
    // Whoever had it may not have seen the mark, which only costs a useless look.
  }
  std::optional<SendResult> trouble;
  {
    const Locked lock(sendLock_, std::adopt_lock);
    trouble = drainHead(wait);
  }
  sayWhatChanged();
  if (trouble) {
    report(*trouble);
  }
  return wait;
}

// Sends what the socket takes of the queue's head. False, with errno, when that is nothing.
bool BusLink::sendHead(const OutgoingQueue::Head& head) {
  const ssize_t count = sendOnce(head.frame, head.offset);
  if (count < 0) {
    return false;
  }
  passed_ = false;
  headIsOut(head, head.offset, static_cast<std::size_t>(count));
  return true;
}

// So many bytes of the head are out behind those that were; the last one counts the frame.
void BusLink::headIsOut(const OutgoingQueue::Head& head, std::size_t done, std::size_t count) {
  headFullSince_.reset();
  queue_.advance(count);
  if (done + count == head.frame->size()) {
    sent_.add(head.frame->size());
    if (head.forwarded) {
      forwarded_.add(head.frame->size());
    }
  }
}

// At most one send: the next one has to wait for the pace. What there is to log about it.
std::optional<BusLink::SendResult> BusLink::drainHead(Wait& wait) {
  const auto head = stands(number_) ? queue_.head() : std::nullopt;
  if (!head) {
    return std::nullopt;
  }
  const auto now = Clock::now();
  const auto next = stalled_ ? std::max(nextSend_, nextTry_) : nextSend_;
  if (now < next) {
    wait = {Wait::For::Time, next, 0};
    return std::nullopt;
  }
  if (sendHead(*head)) {
    if (hasWaiting()) {
      wait = {Wait::For::Time, nextSend_, 0};
    }
    return std::nullopt;
  }
  SendResult result;
  result.sent = head->offset;
  result.size = head->frame->size();
  if (errno != EAGAIN) {
    result.error = errno;
    result.outcome = Send::Failed;
    shutdownSocket();
    return result;
  }
  wait = {Wait::For::Room, now + kRoomSlice, descriptor_};
  if (stalled_) {
    wait = {Wait::For::Time, nextTry_, 0};
  }
  if (!head->forwarded && queue_.size().frames == 1) {
    // The rest of what a send() gave up, which has been told, holds up nothing.
  } else if (!headFullSince_) {
    headFullSince_ = now;
  } else if (now - *headFullSince_ >= budget_) {
    headFullSince_ = now;
    result.kept = true;
    result.outcome = Send::BudgetExhausted;
    return result;
  }
  return std::nullopt;
}

int BusLink::unsentBytes() {
  const Locked lock(socketLock_);
  int count = 0;
  return socket_.valid() && ioctl(socket_.get(), SIOCOUTQ, &count) == 0 ? count : 0;
}

bool BusLink::giveWay() {
  if (!stalled_ || queue_.dropNewest() == 0) {
    return false;
  }
  noteDropped();
  return true;
}

void BusLink::noteDropped() {
  allDropped_.fetch_add(1, std::memory_order_relaxed);
  {
    const Locked lock(episodeLock_);
    if (++droppedFrames_ > 1) {
      return;
    }
  }
  countWarning(Warning::RouterStalled);
  syslog(LOG_WARNING,
         "%.1024s takes no messages: what finds no room to wait is dropped from now on.\n",
         name_.c_str());
}

// Ends the episode of a router that was stalled. Without an allocation: there may be no memory, and
// a change of the link's state must go through.
void BusLink::sayWhatChanged() {
  std::size_t count = 0;
  {
    const Locked lock(episodeLock_);
    if (droppedFrames_ == 0 || stalled_) {
      return;
    }
    std::swap(count, droppedFrames_);
  }
  syslog(LOG_WARNING, "%.1024s: %zu messages were dropped while it took none.\n", name_.c_str(),
         count);
}

// Without an allocation: a frame that waits is not lost for want of memory to say so.
void BusLink::report(const SendResult& result) const {
  if (result.outcome == Send::Failed) {
    countWarning(Warning::SendFailed);
    char text[256] = "";
    syslog(LOG_ERR, "%s send error (fd=%d, %.1024s) : %s\n",
           "int PellInternalClient::sendConstMessage(const PellInternalMessage&)",
           shownDescriptor(), name_.c_str(), strerror_r(result.error, text, sizeof text));
  } else if (result.outcome == Send::BudgetExhausted) {
    if (!result.kept) {
      countWarning(Warning::SendGaveUp);
    }
    syslog(LOG_ERR,
           "const PellInternalClient::sendMessage FAILED after 100 retries (sent %d/%zd)\n",
           static_cast<int>(result.sent), static_cast<ssize_t>(result.size));
    std::printf("const PellInternalClient::sendMessage FAILED after 100 retries (sent %d/%zu)\n",
                static_cast<int>(result.sent), result.size);
  }
}

void BusLink::setState(int state) {
  std::size_t lost = 0;
  {
    const SendScope scope(*this);
    state_ = state;
    if (state != 1) {
      lost = endQueue();
    }
  }
  sayLost(lost);
}

void BusLink::shutdownSocket() {
  const Locked lock(socketLock_);
  ended_ = true;
  if (socket_.valid()) {
    // A bare close would leave a reader blocked and free the number for somebody else.
    ::shutdown(socket_.get(), SHUT_RDWR);
  }
}

void BusLink::closeSocket() {
  shutdownSocket();  // who holds the send lock gives up
  std::size_t lost = 0;
  {
    const SendScope scope(*this);
    lost = endQueue();
    const Locked lock(socketLock_);
    descriptor_ = 0;
    socket_.reset();
  }
  sayLost(lost);
}

// The waiting frames go with their link.
std::size_t BusLink::endQueue() {
  noteTaken();
  return queue_.close();
}

void BusLink::sayLost(std::size_t count) {
  sayWhatChanged();
  if (count > 0) {
    lostWithLink_ += count;
    countWarning(Warning::LostWithLink);
    syslog(LOG_WARNING, "%.1024s: %zu messages that waited to leave are lost with the link.\n",
           name_.c_str(), count);
  }
}

// After the send lock was let go, or a frame was left to whoever has it.
void BusLink::tellSender() noexcept {
  const bool missed = missed_.exchange(false);
  if (!missed && !hasWaiting()) {
    return;
  }
  if (const auto sender = sender_.lock()) {
    try {
      if (hasWaiting()) {
        sender->add(shared_from_this());
      }
    } catch (const std::bad_alloc&) {
      // The next frame, or keep-alive, tries again.
    }
    if (missed) {
      sender->wake();
    }
  }
}

}  // namespace valtor
