#pragma once

#include <chrono>
#include <thread>

namespace valtor::test {

// The longest wait. It only ends a failing test: none depends on how fast a condition comes.
// Whoever provokes faults that keep conditions from coming shortens it.
inline std::chrono::milliseconds longestWait{30000};

// Waits until the condition holds or that time has passed; whether it holds.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds longest = longestWait) {
  const auto end = std::chrono::steady_clock::now() + longest;
  bool holds = condition();
  while (!holds && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    holds = condition();
  }
  return holds;
}

}  // namespace valtor::test
