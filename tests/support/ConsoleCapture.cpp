#include "support/ConsoleCapture.h"

#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

namespace valtor::test {

ConsoleCapture::ConsoleCapture(FILE* stream) : stream_(stream) {
  std::fflush(stream_);
  char path[] = "/tmp/valtor-console-XXXXXX";
  file_ = mkostemp(path, O_CLOEXEC | O_APPEND);
  saved_ = dup(fileno(stream_));
  if (file_ < 0 || saved_ < 0 || dup2(file_, fileno(stream_)) < 0) {
    throw std::runtime_error("cannot redirect the stream");
  }
  unlink(path);
}

ConsoleCapture::~ConsoleCapture() {
  std::fflush(stream_);
  dup2(saved_, fileno(stream_));
  close(saved_);
  close(file_);
}

std::string ConsoleCapture::text() const {
  std::fflush(stream_);
  std::string content(static_cast<std::size_t>(lseek(file_, 0, SEEK_END)), '\0');
  const ssize_t count = pread(file_, content.data(), content.size(), 0);
  content.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return content;
}

}  // namespace valtor::test
