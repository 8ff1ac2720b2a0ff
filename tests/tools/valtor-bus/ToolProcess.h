#pragma once

#include <csignal>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/TemporaryFolder.h"

namespace valtor::test {

// A started program whose standard streams are files.
class ToolProcess {
 public:
  explicit ToolProcess(std::vector<std::string> arguments, const std::string& input = "") {
    folder_.write("in", input);
    const std::string script = "cd " + folder_.path() + " && exec \"$0\" \"$@\" <in >out 2>err";
    arguments.insert(arguments.begin(), {"sh", "-c", script});
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawnp(&process_, "sh", nullptr, nullptr, argv.data(), environ);
  }
  ~ToolProcess() {
    if (process_ > 0) {
      kill(process_, SIGKILL);
      exitCode();
    }
  }
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  void interrupt() const { kill(process_, SIGINT); }
  // Waits for the end; the exit code, or -1 when a signal ended it.
  int exitCode() {
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::string out() const { return fileContent(folder_.at("out")); }
  std::string err() const { return fileContent(folder_.at("err")); }

 private:
  TemporaryFolder folder_;
  pid_t process_ = -1;
};

}  // namespace valtor::test
