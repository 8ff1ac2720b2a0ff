#pragma once

#include <chrono>
#include <thread>

namespace valtor::test {

// Waits until the condition holds or the deadline has passed; whether it holds. The deadline only
// ends a failing test: no test depends on how fast the condition comes.
template <class Condition>
bool eventually(Condition condition, std::chrono::seconds deadline = std::chrono::seconds(30)) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return condition();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace valtor::test
