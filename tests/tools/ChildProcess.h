#pragma once

#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "app/util/UniqueDescriptor.h"
#include "support/TemporaryFolder.h"

namespace valtor::test {

// A bash that follows a script in a folder of its own, with a pipe as standard input; the script
// ends with the "exec" of a program. It dies with the thread that started it, so that none is left
// to disturb a later test.
class ChildProcess {
 public:
  // What the script sends to the files "out" and "err" can be read here. The arguments are its
  // "$@".
  explicit ChildProcess(const std::string& script, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {"bash", "-c", "cd " + folder_.path() + "; " + script, ""});
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    int ends[2] = {-1, -1};
    static_cast<void>(pipe2(ends, O_CLOEXEC) == 0);  // without it the program finds no input
    const UniqueDescriptor output(ends[0]);
    input_.reset(ends[1]);
    std::signal(SIGPIPE, SIG_IGN);  // it may end before it has read what it is told
    process_ = fork();
    if (process_ == 0) {
      // A process with threads was forked: from here on only what is safe in a signal handler.
      std::signal(SIGPIPE, SIG_DFL);
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(output.get(), STDIN_FILENO);
      close_range(STDERR_FILENO + 1, ~0U, 0);  // the nodes' sockets do not close by themselves
      execv("/bin/bash", argv.data());
      _exit(127);
    }
  }
  ~ChildProcess() {
    if (process_ > 0) {
      signal(SIGKILL);
      wait();
    }
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void say(const std::string& text) const {
    static_cast<void>(write(input_.get(), text.data(), text.size()) > 0);
  }
  void endInput() { input_.reset(); }
  void signal(int number) const { kill(process_, number); }
  pid_t id() const { return process_; }
  bool isRunning() const {
    siginfo_t end{};
    return process_ > 0 &&
           waitid(P_PID, static_cast<id_t>(process_), &end, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           end.si_pid == 0;
  }
  // Waits for the end; the exit code, or the negative number of the signal that ended it.
  int wait() {
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  std::string out() const { return fileContent(folder_.at("out")); }
  std::string err() const { return fileContent(folder_.at("err")); }
  const TemporaryFolder& folder() const { return folder_; }

 private:
  TemporaryFolder folder_;
  UniqueDescriptor input_;
  pid_t process_ = -1;
};

}  // namespace valtor::test
