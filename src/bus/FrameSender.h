#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <poll.h>
#include <vector>

#include "app/util/Mutex.h"
#include "app/util/UniqueDescriptor.h"
#include "bus/MyThreadClass.h"
#include "bus/message/Frame.h"

namespace valtor {

class BusLink;

// How much memory frames that are on their way to several links may hold together. A frame counts
// once, however many links it waits for. Any thread may use it.
class FrameBudget : public std::enable_shared_from_this<FrameBudget> {
 public:
  static constexpr std::size_t kMaxBytes = std::size_t{64} << 20;

  // The same frame, counted until its last copy is gone.
  SharedFrame count(SharedFrame frame);
  bool isExceeded() const { return used_ > kMaxBytes; }
  std::size_t used() const { return used_; }

 private:
  std::atomic<std::size_t> used_{0};
};

// The thread that sends what could not leave at once: one for all links that are given it. It waits
// for sockets and for the pace of links, holds nothing while it waits, and only tries their send
// locks. It calls no hook and knows no client; a link's socket that refuses is only shut down, the
// link's reader reports it.
//
// Whoever owns it, in a shared_ptr, keeps it longer than the clients that use it, or closes them
// first: links hold it weakly. Any thread may call the operations. Where the thread cannot be
// started, which is logged, links send synchronously.
class FrameSender final : public MyThreadClass {
 public:
  FrameSender();
  // Ends the thread. What waits stays with its links.
  ~FrameSender() override;

  // The link has frames that wait.
  void add(const std::shared_ptr<BusLink>& link);
  // A link that was busy is free again.
  void wake();

  // Drops the newest frames of links that take nothing until the budget is met. Whether it is.
  bool makeRoom();
  bool isStarted() const { return started_; }
  FrameBudget& budget() { return *budget_; }

 protected:
  void InternalThreadEntry() override;

 private:
  using Clock = std::chrono::steady_clock;
  using Links = std::vector<std::shared_ptr<BusLink>>;

  void lookAtAll();
  bool look(const std::shared_ptr<BusLink>& link);
  bool forget(const std::shared_ptr<BusLink>& link);
  void wait();

  const std::shared_ptr<FrameBudget> budget_ = std::make_shared<FrameBudget>();
  UniqueDescriptor wakeEvent_;
  Mutex lock_;
  Links links_ VALTOR_GUARDED_BY(lock_);  // those with waiting frames
  // Of the thread, kept so that it need not allocate in every round.
  Links looked_;
  std::vector<pollfd> sockets_;
  Clock::time_point until_{};
  const bool started_;  // last: the thread uses all the others
};

}  // namespace valtor
