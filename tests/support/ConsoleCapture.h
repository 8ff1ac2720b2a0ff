#pragma once

#include <cstdio>
#include <string>

namespace valtor::test {

// Takes what the process writes to standard output (or, when asked, standard error) while the
// object lives, and lets a test read it.
class ConsoleCapture {
 public:
  explicit ConsoleCapture(FILE* stream = stdout);
  ~ConsoleCapture();
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

  // Everything written so far.
  std::string text() const;
  bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }

 private:
  FILE* stream_;
  int saved_;
  int file_;
};

}  // namespace valtor::test
