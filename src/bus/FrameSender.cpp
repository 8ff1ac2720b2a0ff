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

// What the sender waits for between two looks at its links.
struct FrameSender::Waits {
  std::chrono::steady_clock::time_point until;
  std::vector<pollfd> sockets;
  bool lookAgain = false;
};

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

FrameSender::Links FrameSender::links() {
  const Locked lock(lock_);
  return links_;
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
  const Links all = links();
  bool any = true;
  while (budget_->isExceeded() && any) {
    any = false;
    for (const auto& link : all) {
      any = link->giveWay() || any;
    }
  }
  return !budget_->isExceeded();
}

bool FrameSender::isFlushed() {
  const Links all = links();
  return std::none_of(all.begin(), all.end(), [](const std::shared_ptr<BusLink>& link) {
    return link->hasWaiting() && link->isStanding() && !link->isStalled();
  });
}

void FrameSender::flush(std::chrono::milliseconds longest) {
  const auto end = std::chrono::steady_clock::now() + longest;
  {
    const Locked lock(lock_);
    ++flushers_;
  }
  while (!isFlushed() && std::chrono::steady_clock::now() < end) {
    const Locked lock(lock_);
    // A pass of the sender that comes between the question and this wait is not missed for long.
    changed_.wait_until(
        lock_, std::min(end, std::chrono::steady_clock::now() + std::chrono::milliseconds(5)));
  }
  const Locked lock(lock_);
  --flushers_;
}

void FrameSender::InternalThreadEntry() {
  // The pace is a millisecond; the default slack of 50 us would be lost on every frame.
  prctl(PR_SET_TIMERSLACK, 1000UL);
  while (isRunning()) {
    Waits waits{std::chrono::steady_clock::now() + std::chrono::hours(1), {}, false};
    try {
      for (const auto& link : links()) {
        look(link, waits);
      }
    } catch (const std::exception& error) {
      syslog(LOG_ERR, "FrameSender: %s\n", error.what());
      waits.until = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
    }
    {
      const Locked lock(lock_);
      if (flushers_ > 0) {
        changed_.notify_all();
      }
    }
    if (!waits.lookAgain) {
      wait(waits);
    }
  }
}

void FrameSender::look(const std::shared_ptr<BusLink>& link, Waits& waits) {
  const BusLink::Wait next = link->drain();
  switch (next.reason) {
    case BusLink::Wait::For::Nothing:
      waits.lookAgain = !forget(link) || waits.lookAgain;
      break;
    case BusLink::Wait::For::Room:
      waits.sockets.push_back({next.descriptor, POLLOUT, 0});
      waits.until = std::min(waits.until, next.until);
      break;
    case BusLink::Wait::For::Pace:
      waits.until = std::min(waits.until, next.until);
      break;
    case BusLink::Wait::For::Holder:
      break;
  }
}

// Nothing is locked: a socket may be closed meanwhile, which costs one useless look.
void FrameSender::wait(Waits& waits) {
  constexpr std::chrono::microseconds kShortest{100};
  const auto begin = std::chrono::steady_clock::now();
  waits.sockets.push_back({wakeEvent_.get(), POLLIN, 0});
  const int ready = pollUntil(waits.sockets, waits.until);
  if (ready > 0 && waits.sockets.back().revents != 0) {
    uint64_t count = 0;
    const ssize_t got = ::read(wakeEvent_.get(), &count, sizeof count);
    static_cast<void>(got);
  } else if (ready > 0 && std::chrono::steady_clock::now() - begin < kShortest) {
    // A socket that says it has room and refuses must not make this thread spin.
    pollUntil(wakeEvent_.get(), POLLIN, begin + kShortest);
  }
}

}  // namespace valtor
