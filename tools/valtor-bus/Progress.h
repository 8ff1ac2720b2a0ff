#pragma once

#include <chrono>
#include <string>

namespace valtor {

// Tells on standard error how far a command is: on a terminal as one line that is written over,
// elsewhere as a line every ten seconds. One thread.
class Progress {
 public:
  Progress();

  // Shows the text when it is time to.
  void show(const std::string& text);
  // The last word, always shown, on a line of its own.
  void finish(const std::string& text);

 private:
  bool terminal_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace valtor
