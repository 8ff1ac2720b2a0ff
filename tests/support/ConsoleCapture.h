#pragma once

#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace valtor::test {

// Takes what the process writes to standard output (or, when asked, standard error) while the
// object lives, and lets a test read it. When the test has failed by the object's end, what was
// taken is passed on: the report of the failure is in there.
class ConsoleCapture {
 public:
  explicit ConsoleCapture(FILE* stream = stdout) : stream_(stream), saved_(dup(fileno(stream))) {
    std::fflush(stream_);
    if (!file_ || saved_ < 0 || dup2(fileno(file_.get()), fileno(stream_)) < 0) {
      throw std::runtime_error("cannot redirect the stream");
    }
  }
  ~ConsoleCapture() {
    const std::string taken = text();
    dup2(saved_, fileno(stream_));
    ::close(saved_);
    if (testing::Test::HasFailure()) {
      std::fputs(taken.c_str(), stream_);
    }
  }
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

  // Everything written so far.
  std::string text() const {
    std::fflush(stream_);
    const int file = fileno(file_.get());
    std::string content(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
    const ssize_t count = pread(file, content.data(), content.size(), 0);
    content.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return content;
  }
  bool contains(const std::string& part) const { return text().find(part) != std::string::npos; }

 private:
  FILE* stream_;
  int saved_;
  std::unique_ptr<FILE, int (*)(FILE*)> file_{std::tmpfile(), std::fclose};
};

}  // namespace valtor::test
