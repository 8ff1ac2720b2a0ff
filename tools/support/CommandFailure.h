#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace valtor {

// What the process returns; the last three from a check, as monitoring systems expect it of their
// plugins.
enum class ExitCode { Done = 0, Refused = 1, Usage = 2, Warning = 1, Critical = 2, Unknown = 3 };

// What ends a command before it is done: the text says what failed and where, the hint, when there
// is one, what to try.
class CommandFailure : public std::runtime_error {
 public:
  CommandFailure(ExitCode code, const std::string& text, std::string advice = "")
      : std::runtime_error(text), exitCode(code), hint(std::move(advice)) {}

  ExitCode exitCode;
  std::string hint;
};

// A signal ended the command before it was done.
class Interrupted : public CommandFailure {
 public:
  Interrupted() : CommandFailure(ExitCode::Refused, "interrupted") {}
};

// The connection to the node could not be made, or was lost. Commands that run long go on after it.
class LinkFailure : public CommandFailure {
 public:
  explicit LinkFailure(const std::string& text, std::string advice = "")
      : CommandFailure(ExitCode::Refused, text, std::move(advice)) {}
};

// Nobody listens there, which may be so for a moment only.
class LinkRefused : public LinkFailure {
 public:
  using LinkFailure::LinkFailure;
};

}  // namespace valtor
