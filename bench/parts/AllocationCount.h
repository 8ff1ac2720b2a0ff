#pragma once

#include <benchmark/benchmark.h>
#include <cstdint>

namespace valtor::bench {

// How often memory was asked for so far, by new or by cJSON.
int64_t allocations();

// Made right before the loop of a benchmark: what the loop allocates in an iteration becomes the
// counter "allocs".
class AllocationCount {
 public:
  explicit AllocationCount(benchmark::State& state) : state_(state), before_(allocations()) {}
  ~AllocationCount() {
    state_.counters["allocs"] = benchmark::Counter(static_cast<double>(allocations() - before_),
                                                   benchmark::Counter::kAvgIterations);
  }
  AllocationCount(const AllocationCount&) = delete;
  AllocationCount& operator=(const AllocationCount&) = delete;

 private:
  benchmark::State& state_;
  const int64_t before_;
};

}  // namespace valtor::bench
