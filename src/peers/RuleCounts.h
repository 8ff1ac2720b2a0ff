#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace valtor {

// How many messages each rule of a direction blocked. Counted without a lock by any thread.
class RuleCounts {
 public:
  using Figures = std::vector<std::pair<const char*, uint64_t>>;

  // The rule is a constant text that lives as long as the process.
  void add(const char* rule) {
    for (Count& count : counts_) {
      const char* known = count.rule.load(std::memory_order_acquire);
      if (known == nullptr && count.rule.compare_exchange_strong(known, rule)) {
        known = rule;
      }
      if (known == rule || std::strcmp(known, rule) == 0) {
        count.blocked.fetch_add(1, std::memory_order_relaxed);
        return;
      }
    }
  }
  // The rules that blocked anything.
  Figures figures() const {
    Figures all;
    for (const Count& count : counts_) {
      if (const char* const rule = count.rule.load(std::memory_order_acquire); rule != nullptr) {
        all.emplace_back(rule, count.blocked.load(std::memory_order_relaxed));
      }
    }
    return all;
  }

 private:
  struct Count {
    std::atomic<const char*> rule{nullptr};
    std::atomic<uint64_t> blocked{0};
  };

  std::array<Count, 8> counts_;  // no direction has more rules
};

}  // namespace valtor
