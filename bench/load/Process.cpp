#include "load/Process.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace valtor::bench {

namespace {

std::string procFile(pid_t pid, const std::string& name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

// The number behind the field of a status file; 0 when it is not there.
uint64_t statusField(const std::string& path, const std::string& field) {
  std::ifstream file(path);
  for (std::string word; file >> word;) {
    if (word == field) {
      uint64_t value = 0;
      file >> value;
      return value;
    }
  }
  return 0;
}

}  // namespace

Process::Process(std::vector<std::string> command)
    : Process([&command] {
        std::vector<char*> arguments;
        for (std::string& one : command) {
          arguments.push_back(one.data());
        }
        arguments.push_back(nullptr);
        execv(arguments[0], arguments.data());
      }) {}

Process::Process(const std::function<void()>& work) : pid_(fork()) {
  if (pid_ < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (pid_ > 0) {
    return;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int nowhere = open("/dev/null", O_RDWR);  // NOLINT(*-vararg)
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(nowhere, descriptor);
  }
  work();
  _exit(127);
}

Process::~Process() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

Process::Process(Process&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

bool Process::isAlive() {
  if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) {
    pid_ = -1;
  }
  return pid_ > 0;
}

double Process::cpuSeconds() const {
  clockid_t clock{};
  timespec time{};
  if (clock_getcpuclockid(pid_, &clock) != 0 || clock_gettime(clock, &time) != 0) {
    throw std::runtime_error("the process has ended");
  }
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

uint64_t Process::wakeUps() const {
  uint64_t sum = 0;
  for (const auto& thread : std::filesystem::directory_iterator(procFile(pid_, "task"))) {
    sum += statusField(thread.path() / "status", "voluntary_ctxt_switches:");
  }
  return sum;
}

uint64_t Process::threads() const { return statusField(procFile(pid_, "status"), "Threads:"); }

uint64_t Process::descriptors() const {
  uint64_t count = 0;
  for (const auto& one : std::filesystem::directory_iterator(procFile(pid_, "fd"))) {
    count += one.path().empty() ? 0 : 1;
  }
  return count;
}

double Process::memoryFactor() const {
  constexpr double kTebi = 1024.0 * 1024 * 1024 * 1024;
  return statusBytes("VmSize:") > kTebi ? 16 : 1;
}

double Process::statusBytes(const std::string& field) const {
  return static_cast<double>(statusField(procFile(pid_, "status"), field)) * 1024;
}

void Process::restartPeak() const { std::ofstream(procFile(pid_, "clear_refs")) << "5"; }

OnOneCpu::OnOneCpu() {
  sched_getaffinity(0, sizeof before_, &before_);
  std::size_t first = 0;
  while (first + 1 < CPU_SETSIZE && !CPU_ISSET(first, &before_)) {
    ++first;
  }
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(first, &one);
  if (sched_setaffinity(0, sizeof one, &one) != 0) {
    throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
  }
}

OnOneCpu::~OnOneCpu() { sched_setaffinity(0, sizeof before_, &before_); }

}  // namespace valtor::bench
