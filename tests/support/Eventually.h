#pragma once

#include <chrono>
#include <thread>

namespace valtor::test {

// Waits until the condition holds or the deadline has passed; whether it holds. The deadline only
// ends a failing test: no test depends on how fast the condition comes.
template <class Condition>
bool eventually(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  bool holds = condition();
  while (!holds && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    holds = condition();
  }
  return holds;
}

}  // namespace valtor::test
