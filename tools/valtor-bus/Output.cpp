#include "valtor-bus/Output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "app/util/ErrnoText.h"
#include "valtor-bus/CommandFailure.h"

namespace valtor {

Output::Output() : terminal_(isatty(STDOUT_FILENO) == 1) {
  const int copy = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  stream_.reset(copy >= 0 ? fdopen(copy, "w") : nullptr);
  if (stream_ == nullptr) {
    throw CommandFailure(ExitCode::Refused, "cannot use standard output: " + errnoText(errno));
  }
  dup2(STDERR_FILENO, STDOUT_FILENO);
  const char* noColour = std::getenv("NO_COLOR");
  const char* kind = std::getenv("TERM");
  colour_ = terminal_ && noColour == nullptr && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

void Output::write(std::string_view bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), stream_.get()) != bytes.size() ||
      std::fflush(stream_.get()) != 0) {
    throw CommandFailure(ExitCode::Refused, "cannot write to standard output: " + errnoText(errno));
  }
}

void say(const std::string& text) { std::fprintf(stderr, "valtor-bus: %s\n", text.c_str()); }

}  // namespace valtor
