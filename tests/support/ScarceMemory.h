#pragma once

#include <cstddef>
#include <cstdint>

namespace valtor::test {

// While it lives, operator new finds no memory for anything from the first to the second number of
// bytes, on any thread; one at a time. For executables with ScarceMemory.cpp among their sources.
class ScarceMemory {
 public:
  explicit ScarceMemory(std::size_t least, std::size_t most = SIZE_MAX);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;
};

}  // namespace valtor::test
