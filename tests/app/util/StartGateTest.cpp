#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "app/util/StartGate.h"

namespace valtor {
namespace {

TEST(StartGate, HoldsWaitersUntilItIsOpenedOrTheyAreToldToGiveUp) {
  for (const auto release : {&StartGate::open, &StartGate::wake}) {
    StartGate gate;
    gate.shut();
    std::atomic<bool> released{false};
    std::atomic<bool> passedEarly{false};
    std::thread waiter([&] {
      gate.wait([&] { return release == &StartGate::wake && released; });
      passedEarly = !released;
    });
    released = true;
    (gate.*release)();
    waiter.join();
    EXPECT_FALSE(passedEarly);
  }
}

}  // namespace
}  // namespace valtor
