// Google Benchmark with the allocations of each benchmark counted.

#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>
#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <new>

#include "parts/AllocationCount.h"

namespace {

int64_t allocationCount = 0;

void* countedMalloc(std::size_t size) {
  ++allocationCount;
  return std::malloc(size);  // NOLINT(*-no-malloc)
}

}  // namespace

int64_t valtor::bench::allocations() { return allocationCount; }

// The array and nothrow forms come here too.
void* operator new(std::size_t size) {
  if (void* bytes = countedMalloc(size)) {
    return bytes;
  }
  throw std::bad_alloc();
}
void operator delete(void* bytes) noexcept { std::free(bytes); }               // NOLINT
void operator delete(void* bytes, std::size_t) noexcept { std::free(bytes); }  // NOLINT

int main(int argc, char** argv) {
  // A heap as after long use: otherwise some benchmarks, by what ran before them, return and fault
  // in again the pages of a large message at every iteration.
  mallopt(M_MMAP_THRESHOLD, 32 * 1024 * 1024);
  mallopt(M_TRIM_THRESHOLD, 1024 * 1024 * 1024);
  cJSON_Hooks hooks{countedMalloc, std::free};
  cJSON_InitHooks(&hooks);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
