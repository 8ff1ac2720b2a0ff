#include "app/util/Console.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

#include "app/util/ConsoleWriter.h"
#include "app/util/Immortal.h"

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

ssize_t writeToConsole(void* writer, const char* data, std::size_t size) {
  static_cast<ConsoleWriter*>(writer)->write({data, size});
  return static_cast<ssize_t>(size);  // what is left out must not become an error of the stream
}

}  // namespace

void initConsole() { setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); }

void keepConsoleFromBlocking() {
  // The C library's streams are variables (glibc manual, "Standard Streams"), so that everything
  // that prints goes through this one. Without memory for it the old one stays.
  static Immortal<ConsoleWriter> writer(STDOUT_FILENO);
  const cookie_io_functions_t operations{nullptr, writeToConsole, nullptr, nullptr};
  if (FILE* const stream = fopencookie(&*writer, "w", operations); stream != nullptr) {
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
