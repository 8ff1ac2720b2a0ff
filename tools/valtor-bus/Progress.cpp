#include "valtor-bus/Progress.h"

#include <cstdio>
#include <unistd.h>

#include "valtor-bus/Output.h"

namespace valtor {
namespace {

constexpr std::chrono::milliseconds kOnTerminal{200};
constexpr std::chrono::seconds kElsewhere{10};
constexpr const char* kClearLine = "\r\x1b[K";

}  // namespace

Progress::Progress()
    : terminal_(isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() +
            (terminal_ ? std::chrono::milliseconds(0) : kElsewhere)) {}

void Progress::show(const std::string& text) {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) {
    return;
  }
  if (terminal_) {
    std::fprintf(stderr, "%s%s", kClearLine, text.c_str());
    next_ = now + kOnTerminal;
  } else {
    say(text);
    next_ = now + kElsewhere;
  }
}

void Progress::finish(const std::string& text) {
  if (terminal_) {
    std::fputs(kClearLine, stderr);
  }
  say(text);
}

}  // namespace valtor
