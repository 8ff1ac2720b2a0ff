#pragma once

#include <atomic>
#include <cstdint>

namespace valtor {

// How many messages went some way, and their bytes. Counted without a lock, so a reader may see a
// message whose bytes are yet to come.
class TrafficCount {
 public:
  struct Figures {
    uint64_t messages = 0;
    uint64_t bytes = 0;
  };

  void add(uint64_t bytes) {
    messages_.fetch_add(1, std::memory_order_relaxed);
    bytes_.fetch_add(bytes, std::memory_order_relaxed);
  }
  Figures figures() const {
    return {messages_.load(std::memory_order_relaxed), bytes_.load(std::memory_order_relaxed)};
  }

 private:
  std::atomic<uint64_t> messages_{0};
  std::atomic<uint64_t> bytes_{0};
};

}  // namespace valtor
