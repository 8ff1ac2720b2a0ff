#include "e2e/DaemonProcess.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "support/Eventually.h"

namespace valtor::test {

namespace {

constexpr const char* kConsole = "console";

// What the child's environment holds for the sanitizers. They report into files, since the daemon
// never ends by itself.
std::vector<std::string> environmentWith(const std::string& folder) {
  std::vector<std::string> variables;
  for (char** one = environ; *one != nullptr; ++one) {
    variables.emplace_back(*one);
  }
  for (const std::string name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
    const char* before = std::getenv(name.c_str());
    std::erase_if(variables, [&](const std::string& one) { return one.rfind(name + "=", 0) == 0; });
    variables.push_back(name + "=" + (before != nullptr ? std::string(before) + ":" : "") +
                        "halt_on_error=1:log_path=" + folder + "/report");
  }
  return variables;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> list;
  for (std::string& text : texts) {
    list.push_back(text.data());
  }
  list.push_back(nullptr);
  return list;
}

}  // namespace

DaemonProcess::DaemonProcess(std::vector<std::string> arguments, Streams streams) {
  arguments.insert(arguments.begin(), VALTOR_REMOTE_EXECUTABLE);
  std::vector<std::string> variables = environmentWith(folder_.path());
  const std::vector<char*> argv = pointers(arguments);
  const std::vector<char*> environment = pointers(variables);
  process_ = fork();
  if (process_ == 0) {
    become(argv.data(), environment.data(), streams);
  }
}

// In the child, where only what is safe after a fork of a process with threads may be called.
void DaemonProcess::become(char* const* argv, char* const* environment, Streams streams) const {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int ends[2] = {-1, -1};
  if (streams == Streams::Captured) {
    ends[1] = open(folder_.at(kConsole).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  } else if (streams == Streams::Unreadable && pipe2(ends, O_CLOEXEC) == 0) {
    close(ends[0]);
  }
  if (streams == Streams::Closed) {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
  } else {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
  }
  close_range(STDERR_FILENO + 1, ~0U, 0);  // the nodes' sockets, which do not close by themselves
  execve(argv[0], argv, environment);
  _exit(127);
}

DaemonProcess::~DaemonProcess() { stop(); }

void DaemonProcess::stop() {
  if (process_ <= 0) {
    return;
  }
  int status = 0;
  const pid_t ended = waitpid(process_, &status, WNOHANG);
  if (ended == 0) {
    kill(process_, SIGTERM);
    waitpid(process_, &status, 0);
  }
  EXPECT_TRUE(ended == 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM)
      << "the daemon ended with wait status " << status << "\n"
      << console();
  process_ = -1;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
    EXPECT_EQ(entry.path().filename(), kConsole) << fileContent(entry.path().string());
  }
}

std::string DaemonProcess::console() const { return fileContent(folder_.at(kConsole)); }

bool DaemonProcess::prints(const std::string& text) const {
  return eventually([&] { return console().find(text) != std::string::npos; });
}

}  // namespace valtor::test
