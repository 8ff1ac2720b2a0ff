#include "valtor-bus/Output.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "app/util/ErrnoText.h"
#include "app/util/UniqueDescriptor.h"
#include "support/CommandFailure.h"

namespace valtor {
namespace {

constexpr const char* kClearLine = "\r\x1b[K";

bool isPassingLineShown = false;

}  // namespace

DataFile::DataFile(std::FILE* stream, std::string name) : stream_(stream), name_(std::move(name)) {
  if (stream != nullptr) {
    std::setvbuf(stream, nullptr, _IONBF, 0);
  }
}

bool DataFile::isBroken() const {
  pollfd entry{stream_ != nullptr ? fileno(stream_.get()) : -1, 0, 0};
  return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLERR | POLLHUP)) != 0;
}

void DataFile::write(std::string_view bytes) {
  if (stream_ != nullptr &&
      std::fwrite(bytes.data(), 1, bytes.size(), stream_.get()) == bytes.size()) {
    return;
  }
  if (stream_ != nullptr && errno == EINTR) {
    throw Interrupted();
  }
  throw CommandFailure(
      ExitCode::Refused,
      "cannot write to " + name_ + ": " + (stream_ != nullptr ? errnoText(errno) : "it is closed"));
}

Output::Output()
    : file_(fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "w"),
            "standard output"),
      terminal_(valtor::isTerminal(STDOUT_FILENO)),
      colour_(terminal_ && std::getenv("NO_COLOR") == nullptr) {
  const UniqueDescriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(nowhere.get(), STDOUT_FILENO);
}

void Output::endWithoutReader() {
  if (file_.isBroken()) {
    std::raise(SIGPIPE);
    throw CommandFailure(ExitCode::Refused, "cannot write to standard output: " + errnoText(EPIPE));
  }
}

bool isTerminal(int descriptor) {
  const char* kind = std::getenv("TERM");
  return isatty(descriptor) == 1 && kind != nullptr && std::strcmp(kind, "dumb") != 0;
}

void say(const std::string& text) {
  const char* before = std::exchange(isPassingLineShown, false) ? kClearLine : "";
  std::fprintf(stderr, "%svaltor-bus: %s\n", before, text.c_str());
}

void sayInPassing(const std::string& text) {
  std::fprintf(stderr, "%s%s", kClearLine, text.c_str());
  isPassingLineShown = true;
}

}  // namespace valtor
