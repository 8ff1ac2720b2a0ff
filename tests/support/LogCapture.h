#pragma once

#include <string>
#include <vector>

namespace valtor::test {

struct LogLine {
  int priority = 0;
  std::string text;
  bool operator==(const LogLine&) const = default;
};

// Records what the process logs with syslog while the object lives; one at a time. Any thread may
// log. Nothing reaches the system's log from a test executable.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  // Lines with exactly this priority and text.
  int count(int priority, const std::string& text) const;
  // Lines that hold this text, whatever their priority.
  int countContaining(const std::string& part) const;
  void clear();
};

}  // namespace valtor::test
