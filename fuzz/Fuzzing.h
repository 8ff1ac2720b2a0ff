#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bus/message/PellInternalMessage.h"

namespace valtor::fuzz {

// What every fuzz program shares. A program defines examine() and kMemoryLimit; who calls them is
// libFuzzer, or Measure.cpp in an optimised build without it. One thread.

// Ends the program with the text when something that must hold does not.
void require(bool holds, const char* what);

// An input, read from its front: letters that choose, then text.
class Input {
 public:
  Input(const uint8_t* data, std::size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

  // The place of the next byte behind 'a', below the count; 0 when nothing is left.
  unsigned choose(unsigned count);
  std::string text() const { return std::string(left_); }
  // The rest between its NULs.
  std::vector<std::string> parts() const;

 private:
  std::string_view left_;
};

// What the handling of an input may hold of the heap at once.
struct MemoryLimit {
  std::size_t perByte = 0;   // of the input
  std::size_t constant = 0;  // bytes
};

// Of the program. prepare() runs once, before the first input; most programs have none.
extern const MemoryLimit kMemoryLimit;
void prepare() __attribute__((weak));
void examine(Input input);

// The bytes of the heap that the last input held at once at most.
std::size_t peakBytes();

// What the heap's own functions report.
void noteAllocated(std::size_t bytes);
void noteFreed(std::size_t bytes);

// A folder for this process, below which every fixed path of the daemon lies from now on, in memory
// where there is such a file system. It goes with the process.
const std::string& scratchFolder();
void writeFile(const std::string& path, std::string_view content);
std::string contentOf(const std::string& path);

// The message that a payload decodes to.
PellInternalMessage received(std::string_view payload);

// Runs the action, which may refuse its input with a std::runtime_error; whether it did not.
template <class Action>
bool accepts(Action action) {
  try {
    action();
  } catch (const std::runtime_error&) {
    return false;
  }
  return true;
}

}  // namespace valtor::fuzz

extern "C" {
int LLVMFuzzerInitialize(int* count, char*** arguments);
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);
}
