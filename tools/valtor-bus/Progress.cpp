#include "valtor-bus/Progress.h"

#include <unistd.h>

#include "valtor-bus/Output.h"

namespace valtor {
namespace {

constexpr std::chrono::milliseconds kOnTerminal{200};
constexpr std::chrono::seconds kElsewhere{10};

}  // namespace

Progress::Progress()
    : terminal_(isTerminal(STDERR_FILENO)),
      next_(std::chrono::steady_clock::now() +
            (terminal_ ? std::chrono::milliseconds(0) : kElsewhere)) {}

void Progress::show(const std::string& text) {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) {
    return;
  }
  if (terminal_) {
    sayInPassing(text);
    next_ = now + kOnTerminal;
  } else {
    say(text);
    next_ = now + kElsewhere;
  }
}

void Progress::finish(const std::string& text) { say(text); }

}  // namespace valtor
