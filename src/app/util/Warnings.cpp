#include "app/util/Warnings.h"

#include <atomic>
#include <cstddef>

namespace valtor {

namespace {

constexpr std::size_t kKinds = static_cast<std::size_t>(Warning::Count);
constexpr std::array<const char*, kKinds> kNames = {
    "notConnected", "sendFailed",    "sendGaveUp",    "routerStalled",
    "lostWithLink", "readingPaused", "messageFailed", "messageCircles"};

std::array<std::atomic<uint64_t>, kKinds> counts{};

}  // namespace

void countWarning(Warning kind) {
  counts[static_cast<std::size_t>(kind)].fetch_add(1, std::memory_order_relaxed);
}

std::array<WarningCount, kKinds> warningCounts() {
  std::array<WarningCount, kKinds> all{};
  for (std::size_t i = 0; i < kKinds; ++i) {
    all[i] = {kNames[i], counts[i].load(std::memory_order_relaxed)};
  }
  return all;
}

}  // namespace valtor
