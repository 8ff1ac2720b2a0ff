#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "app/util/FairMutex.h"
#include "app/util/Mutex.h"
#include "app/util/StartGate.h"
#include "support/Eventually.h"

namespace valtor {
namespace {

TEST(StartGate, HoldsWaitersUntilItIsOpenedOrTheyAreToldToGiveUp) {
  for (const bool byOpening : {true, false}) {
    StartGate gate;
    std::stop_source stop;
    gate.shut();
    std::atomic<bool> released{false};
    std::atomic<bool> heldBack{false};
    std::thread waiter([&] {
      gate.wait(stop.get_token());
      heldBack = released.load();
    });
    released = true;
    if (byOpening) {
      gate.open();
    } else {
      stop.request_stop();
    }
    waiter.join();
    EXPECT_TRUE(heldBack);
  }
}

// Locks by hand, to try the lock while it holds it.
void holdAgainBehindWaiters() VALTOR_NO_THREAD_SAFETY_ANALYSIS {
  FairMutex mutex;
  std::vector<int> order;
  mutex.lock();
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&, i] {
      const Locked lock(mutex);
      order.push_back(i);
    });
    ASSERT_TRUE(test::eventually([&] { return mutex.waiters() == waiters.size(); }));
  }
  EXPECT_FALSE(mutex.tryLock());
  mutex.unlock();
  {
    const Locked lock(mutex);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  }
  for (std::thread& waiter : waiters) {
    waiter.join();
  }
  ASSERT_TRUE(mutex.tryLock());
  mutex.unlock();
}

TEST(FairMutex, WhoHoldsItAgainAndAgainWaitsBehindWhoWaits) { holdAgainBehindWaiters(); }

}  // namespace
}  // namespace valtor
