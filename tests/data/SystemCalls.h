#pragma once

#include <string>
#include <vector>

namespace valtor::test {

// This executable takes the place of the C library's calls that a container's save and load are
// made of, and passes them on. While an object lives, one at a time and on one thread, it counts
// the calls, and makes one fail or ends the process after one. Create it right before the operation
// under test: whatever else the process does meanwhile is counted too.
class SystemCalls {
 public:
  // What the process that stopAfter ended exits with.
  static constexpr int kStopped = 77;

  SystemCalls();
  ~SystemCalls();
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;

  // Makes the nth call (from 1) of this name fail with the error. fopen64 counts as fopen. A
  // failing fread reads nothing, a failing ftell reports a file of nearly the whole address space.
  void fail(const std::string& name, int nth, int error);

  // Ends the process without any clean-up after the given call (from 1), as a crash would. Stopped
  // at a fwrite, half of the bytes reach the file.
  void stopAfter(int step);

  // The names of the calls so far, in order.
  std::vector<std::string> seen() const;
};

}  // namespace valtor::test
