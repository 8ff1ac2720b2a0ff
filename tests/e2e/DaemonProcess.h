#pragma once

#include <string>
#include <sys/types.h>

#include "support/TemporaryFolder.h"

namespace valtor::test {

// The real valtor-remote as a child of the test, with what it prints in a file. It dies with the
// thread that started it, so that none is left to disturb a later test. A sanitizer's report or an
// end of its own fails the test.
class DaemonProcess {
 public:
  enum class Streams {
    Captured,
    Closed,      // started without standard streams
    Unreadable,  // standard output is a pipe that nobody reads any more
  };

  // The options are one argument, or none when empty.
  explicit DaemonProcess(const std::string& options = "", Streams streams = Streams::Captured);
  // stop()
  ~DaemonProcess();
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // Ends it with SIGTERM and checks that this is what it died of, and that no sanitizer reported.
  void stop();
  // What it has printed so far.
  std::string console() const;

 private:
  void redirect(Streams streams) const;

  TemporaryFolder folder_;
  pid_t process_ = -1;
};

}  // namespace valtor::test
