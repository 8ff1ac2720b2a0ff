#include "e2e/DaemonProcess.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace valtor::test {

namespace {

constexpr const char* kConsole = "console";

// The sanitizers of the child report into files, since the daemon never ends by itself.
std::vector<std::string> environmentWith(const std::string& folder) {
  std::vector<std::string> variables;
  for (char** one = environ; *one != nullptr; ++one) {
    variables.emplace_back(*one);
  }
  for (const std::string name : {"ASAN_OPTIONS=", "TSAN_OPTIONS=", "UBSAN_OPTIONS="}) {
    std::string value = name;
    for (const std::string& one : variables) {
      value = one.rfind(name, 0) == 0 ? one + ":" : value;
    }
    std::erase_if(variables, [&](const std::string& one) { return one.rfind(name, 0) == 0; });
    variables.push_back(value + "halt_on_error=1:log_path=" + folder + "/report");
  }
  return variables;
}

}  // namespace

DaemonProcess::DaemonProcess(const std::string& options, Streams streams) {
  std::vector<std::string> variables = environmentWith(folder_.path());
  std::vector<char*> environment;
  for (std::string& variable : variables) {
    environment.push_back(variable.data());
  }
  environment.push_back(nullptr);
  const char* const option = options.empty() ? nullptr : options.c_str();
  process_ = fork();
  if (process_ == 0) {
    // A process with threads was forked: from here on only what is safe in a signal handler.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    redirect(streams);
    close_range(STDERR_FILENO + 1, ~0U, 0);  // the nodes' sockets do not close by themselves
    execle(VALTOR_REMOTE_EXECUTABLE, "valtor-remote", option, nullptr, environment.data());
    _exit(127);
  }
}

void DaemonProcess::redirect(Streams streams) const {
  if (streams == Streams::Closed) {
    close_range(STDIN_FILENO, STDERR_FILENO, 0);
    return;
  }
  int ends[2] = {-1, -1};
  if (streams == Streams::Unreadable && pipe(ends) == 0) {
    close(ends[0]);
  } else {
    ends[1] = open(folder_.at(kConsole).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  }
  dup2(ends[1], STDOUT_FILENO);
  dup2(ends[1], STDERR_FILENO);
}

DaemonProcess::~DaemonProcess() { stop(); }

void DaemonProcess::stop() {
  if (process_ <= 0) {
    return;
  }
  int status = 0;
  const bool alive = waitpid(process_, &status, WNOHANG) == 0;
  if (alive) {
    kill(process_, SIGTERM);
    waitpid(process_, &status, 0);
  }
  process_ = -1;
  EXPECT_TRUE(alive && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM)
      << "the daemon ended with wait status " << status;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
    EXPECT_EQ(entry.path().filename(), kConsole) << fileContent(entry.path().string());
  }
}

std::string DaemonProcess::console() const { return fileContent(folder_.at(kConsole)); }

}  // namespace valtor::test
