#include "support/ScarceMemory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> leastRefused{SIZE_MAX};
std::atomic<std::size_t> mostRefused{SIZE_MAX};

}  // namespace

void* operator new(std::size_t size) {
  void* const memory =
      size >= leastRefused && size <= mostRefused ? nullptr : std::malloc(size > 0 ? size : 1);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace valtor::test {

ScarceMemory::ScarceMemory(std::size_t least, std::size_t most) {
  mostRefused = most;
  leastRefused = least;
}

ScarceMemory::~ScarceMemory() { leastRefused = SIZE_MAX; }

}  // namespace valtor::test
