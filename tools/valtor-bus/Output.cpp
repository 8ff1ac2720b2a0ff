#include "valtor-bus/Output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "app/util/ErrnoText.h"
#include "valtor-bus/CommandFailure.h"

namespace valtor {

void DataFile::write(std::string_view bytes) {
  if (stream_ == nullptr ||
      std::fwrite(bytes.data(), 1, bytes.size(), stream_.get()) != bytes.size() ||
      std::fflush(stream_.get()) != 0) {
    throw CommandFailure(ExitCode::Refused, "cannot write to " + name_ + ": " + errnoText(errno));
  }
}

Output::Output()
    : file_(fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "w"),
            "standard output"),
      terminal_(isatty(STDOUT_FILENO) == 1) {
  dup2(STDERR_FILENO, STDOUT_FILENO);
  const char* noColour = std::getenv("NO_COLOR");
  const char* kind = std::getenv("TERM");
  colour_ = terminal_ && noColour == nullptr && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

void say(const std::string& text) { std::fprintf(stderr, "valtor-bus: %s\n", text.c_str()); }

}  // namespace valtor
