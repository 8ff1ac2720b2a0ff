#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "app/util/StartGate.h"

namespace valtor {
namespace {

TEST(StartGate, HoldsWaitersUntilOpenedAndThenNeverAgain) {
  StartGate gate;
  gate.wait([] { return false; });
  gate.shut();
  std::atomic<bool> opened{false};
  std::atomic<bool> passedEarly{false};
  std::thread waiter([&] {
    gate.wait([] { return false; });
    passedEarly = !opened;
  });
  opened = true;
  gate.open();
  waiter.join();
  EXPECT_FALSE(passedEarly);
  gate.wait([] { return false; });
}

TEST(StartGate, AWaiterThatIsToldToGiveUpLeavesAShutGate) {
  StartGate gate;
  gate.shut();
  std::atomic<bool> closing{false};
  std::thread waiter([&] { gate.wait([&] { return closing.load(); }); });
  closing = true;
  gate.wake();
  waiter.join();
}

}  // namespace
}  // namespace valtor
