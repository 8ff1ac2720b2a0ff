#include "bus/FrameSender.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/PollWait.h"
#include "bus/BusLink.h"

namespace valtor {

SharedFrame FrameBudget::count(SharedFrame frame) {
  const Frame* const address = frame.get();
  const std::size_t size = frame->size();
  used_ += size;
  auto release = [budget = shared_from_this(), frame = std::move(frame),
                  size](const Frame*) mutable {
    frame.reset();
    budget->used_ -= size;
  };
  return SharedFrame(address, std::move(release));
}

FrameSender::FrameSender()
    : MyThreadClass("FrameSender"),
      wakeEvent_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      started_(wakeEvent_.valid() && start()) {
  if (!wakeEvent_.valid()) {
    syslog(LOG_ERR, "FrameSender: no event descriptor, so one router waits for another: %s\n",
           errnoText(errno).c_str());
  }
}

FrameSender::~FrameSender() {
  if (started_) {
    end();
    wake();
    join();
  }
}

void FrameSender::wake() {
  const uint64_t one = 1;
  // The only failure is a counter that is full, which wakes as well (eventfd(2)).
  const ssize_t written = ::write(wakeEvent_.get(), &one, sizeof one);
  static_cast<void>(written);
}

void FrameSender::add(const std::shared_ptr<BusLink>& link) {
  {
    const Locked lock(lock_);
    if (std::find(links_.begin(), links_.end(), link) != links_.end()) {
      return;
    }
    links_.push_back(link);
  }
  wake();
}

// False when frames have come meanwhile, so that the link stays.
bool FrameSender::forget(const std::shared_ptr<BusLink>& link) {
  const Locked lock(lock_);
  if (link->hasWaiting() && link->isStanding()) {
    return false;
  }
  std::erase(links_, link);
  return true;
}

bool FrameSender::makeRoom() {
  Links all;
  {
    const Locked lock(lock_);
    all = links_;
  }
  bool any = true;
  while (budget_->isExceeded() && any) {
    any = false;
    for (const auto& link : all) {
      any = link->giveWay() || any;
    }
  }
  return !budget_->isExceeded();
}

void FrameSender::InternalThreadEntry() {
  // The pace is a millisecond; the default slack of 50 us would be lost on every frame.
  prctl(PR_SET_TIMERSLACK, 1000UL);
  while (isRunning()) {
    try {
      lookAtAll();
    } catch (const std::exception& error) {
      // Nothing here may allocate: there may be no memory still.
      syslog(LOG_ERR, "FrameSender: %s\n", error.what());
      pollUntil(wakeEvent_.get(), 0, Clock::now() + std::chrono::milliseconds(20));
    }
  }
}

// Sends what may leave, then waits until something else may.
void FrameSender::lookAtAll() {
  until_ = Clock::now() + std::chrono::hours(1);
  sockets_.clear();
  bool again = false;
  {
    const Locked lock(lock_);
    looked_ = links_;
  }
  for (const auto& link : looked_) {
    again = look(link) || again;
  }
  looked_.clear();
  if (!again) {
    wait();
  }
}

// Whether it has to be looked at again at once.
bool FrameSender::look(const std::shared_ptr<BusLink>& link) {
  const BusLink::Wait next = link->drain();
  switch (next.reason) {
    case BusLink::Wait::For::Nothing:
      return !forget(link);
    case BusLink::Wait::For::Room:
      sockets_.push_back({next.descriptor, POLLOUT, 0});
      until_ = std::min(until_, next.until);
      break;
    case BusLink::Wait::For::Time:
      until_ = std::min(until_, next.until);
      break;
    case BusLink::Wait::For::Holder:
      break;
  }
  return false;
}

// Nothing is locked: a socket may be closed meanwhile, which costs one useless look.
void FrameSender::wait() {
  constexpr std::chrono::microseconds kShortest{100};
  const auto begin = Clock::now();
  sockets_.push_back({wakeEvent_.get(), POLLIN, 0});
  const int ready = pollUntil(sockets_, until_);
  if (ready > 0 && sockets_.back().revents != 0) {
    uint64_t count = 0;
    const ssize_t got = ::read(wakeEvent_.get(), &count, sizeof count);
    static_cast<void>(got);
  } else if (ready > 0 && Clock::now() - begin < kShortest) {
    // A socket that says it has room and refuses must not make this thread spin.
    pollUntil(wakeEvent_.get(), POLLIN, begin + kShortest);
  }
}

}  // namespace valtor
