#include "app/util/Console.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <poll.h>
#include <string_view>
#include <sys/time.h>
#include <unistd.h>

namespace valtor {

namespace {

// Holds the stream's own recursive lock, so that several writes come out as one.
class StreamLock {
 public:
  explicit StreamLock(FILE* stream) : stream_(stream) { flockfile(stream_); }
  ~StreamLock() { funlockfile(stream_); }
  StreamLock(const StreamLock&) = delete;
  StreamLock& operator=(const StreamLock&) = delete;

 private:
  FILE* stream_;
};

// What stands behind the standard output stream: it writes to descriptor 1, and leaves out what
// would have to wait for a reader, whole lines as far as it can. Called with the stream's lock
// held.
class ConsoleWriter {
 public:
  static ssize_t write(void* self, const char* data, std::size_t size) {
    static_cast<ConsoleWriter*>(self)->writeOrDrop(std::string_view(data, size));
    return static_cast<ssize_t>(size);  // what is dropped must not become an error of the stream
  }

 private:
  void writeOrDrop(std::string_view text) {
    if (dropped_ > 0) {
      // Goes on with a new line only.
      const std::size_t rest = atLineStart_ ? 0 : std::min(text.find('\n'), text.size() - 1) + 1;
      drop(text.substr(0, rest));
      text.remove_prefix(rest);
      if (text.empty() || !sayHowMuch()) {
        drop(text);
        return;
      }
    }
    while (!text.empty()) {
      const std::size_t count = writePiece(text);
      if (count == 0) {
        drop(text);
        return;
      }
      text.remove_prefix(count);
    }
  }

  void drop(std::string_view text) {
    if (!text.empty()) {
      dropped_ += text.size();
      atLineStart_ = text.back() == '\n';
    }
  }

  bool sayHowMuch() {
    char note[96] = "";
    const int length = std::snprintf(
        note, sizeof note, "\n%zu bytes of the trace are missing: nobody read them.\n", dropped_);
    if (writePiece({note, static_cast<std::size_t>(length)}) == 0) {
      return false;
    }
    dropped_ = 0;
    return true;
  }

  // Writes as much of the text as is sure to fit when there is any room (pipe(7), "PIPE_BUF"). How
  // much that was; 0 when there is no room, and all of it when it cannot be written at all.
  static std::size_t writePiece(std::string_view text) {
    pollfd entry{STDOUT_FILENO, POLLOUT, 0};
    if (poll(&entry, 1, 0) <= 0) {
      return 0;
    }
    const ssize_t count =
        ::write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    return count > 0 ? static_cast<std::size_t>(count) : text.size();
  }

  std::size_t dropped_ = 0;
  bool atLineStart_ = true;  // whether what was dropped last ended a line
};

}  // namespace

void initConsole() { setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); }

void keepConsoleFromBlocking() {
  // The C library's streams are variables (glibc manual, "Standard Streams"), so that everything
  // that prints goes through this one. Without memory for it the old one stays.
  static ConsoleWriter& writer = *new ConsoleWriter;  // NOLINT(*-owning-memory): threads may print
  const cookie_io_functions_t operations{nullptr, ConsoleWriter::write, nullptr, nullptr};
  if (FILE* const stream = fopencookie(&writer, "w", operations); stream != nullptr) {
    std::fflush(stdout);
    stdout = stream;
    initConsole();
  }
}

std::string formatLogTimestamp(time_t seconds, long microseconds) {
  std::tm local{};
  localtime_r(&seconds, &local);
  char clock[64] = "";
  std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
  char prefix[96] = "";
  std::snprintf(prefix, sizeof prefix, "%s.%03ld\t", clock, microseconds / 1000);
  return prefix;
}

void printLogTimestamp() {
  timeval now{};
  gettimeofday(&now, nullptr);
  std::fputs(formatLogTimestamp(now.tv_sec, static_cast<long>(now.tv_usec)).c_str(), stdout);
}

void traceLine(const char* format, ...) {
  const StreamLock lock(stdout);
  printLogTimestamp();
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stdout, format, arguments);
  va_end(arguments);
}

}  // namespace valtor
