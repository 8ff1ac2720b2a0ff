#pragma once

#include <cstdint>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace valtor::bench {

// A child process, and what the kernel says about it. It gets no standard input, its output goes
// nowhere, and it dies with its parent.
class Process {
 public:
  explicit Process(std::vector<std::string> command);
  // Runs a function instead of a program.
  explicit Process(const std::function<void()>& work);
  // Ends it.
  ~Process();
  Process(Process&& other) noexcept;
  Process& operator=(Process&& other) = delete;

  // False once it has ended by itself.
  bool isAlive();

  // CPU time of all its threads, also of those that have ended, in seconds.
  double cpuSeconds() const;
  // How often its present threads went to sleep by themselves: as often they were woken.
  uint64_t wakeUps() const;
  // Bytes.
  double residentBytes() const { return statusBytes("VmRSS:"); }
  double peakBytes() const { return statusBytes("VmHWM:"); }
  uint64_t threads() const;
  // Open files and sockets.
  uint64_t descriptors() const;
  // How much more memory than usual it may take: a sanitizer, which reserves terabytes of addresses
  // for itself, keeps what is freed for a while and notes what is used.
  double memoryFactor() const;
  // Lets the peak begin at what is resident now.
  void restartPeak() const;

 private:
  double statusBytes(const std::string& field) const;

  pid_t pid_;
};

// Puts this process, and what it starts from now on, on one of its CPUs; back on those it had when
// destroyed.
class OnOneCpu {
 public:
  OnOneCpu();
  ~OnOneCpu();
  OnOneCpu(const OnOneCpu&) = delete;
  OnOneCpu& operator=(const OnOneCpu&) = delete;

 private:
  cpu_set_t before_;
};

}  // namespace valtor::bench
