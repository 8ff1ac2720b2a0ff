#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "gauntlet/torture/FaultControl.h"
#include "tools/ChildProcess.h"

namespace valtor::gauntlet {

// An executable of the daemon, and the folder that its fixed paths lie below.
struct Build {
  std::string daemon;
  std::string root;
};

// A daemon under torture: one process, with FailingCalls in it, that dies with this object, and the
// service manager that it has. One at a time.
class Subject {
 public:
  // Does not start it yet: orders may be given before. The library is FailingCalls.
  Subject(Build build, const std::string& library);
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;
  ~Subject();

  FaultControl& faults() { return *faults_; }
  // The command, when there is one, runs it: "prlimit --nofile=8". The assignments are more of its
  // environment.
  void start(const std::string& command = "", const std::string& assignments = "");
  bool isRunning() const { return process_ != nullptr && process_->isRunning(); }
  pid_t id() const { return process_->id(); }
  // Half of this the daemon lets pass between two words to its service manager.
  static constexpr std::chrono::milliseconds kWatchdog{200};
  // Whether it has fed its watchdog since this was asked last.
  bool wasFed();
  // Kills it when it runs. How it ended: the exit status, or the negative number of a signal.
  int end();

  struct Line {
    int priority = 0;
    std::string text;
  };
  std::vector<Line> log() const;
  // What it wrote to standard error.
  std::string errors() const { return process_->err(); }
  // Whether the log or standard error hold the text.
  bool said(const std::string& text) const;
  // The log for people: how it came to a finding.
  std::string story() const;
  // What sanitizers found.
  std::string reports() const;

 private:
  const Build build_;
  const std::string library_;
  UniqueDescriptor file_;
  UniqueDescriptor manager_;
  FaultControl* faults_ = nullptr;
  std::unique_ptr<test::ChildProcess> process_;
};

}  // namespace valtor::gauntlet
