#include "support/LogCapture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <syslog.h>

namespace {

struct Store {
  std::mutex mutex;
  bool recording = false;
  std::vector<valtor::test::LogLine> lines;
};

// Never destroyed: threads may log until the process ends.
Store& store = *new Store;

void record(int priority, const char* format, va_list arguments) {
  char text[131072];  // more than any line quotes
  std::vsnprintf(text, sizeof text, format, arguments);
  const std::lock_guard<std::mutex> lock(store.mutex);
  if (store.recording) {
    store.lines.push_back({priority, text});
  }
}

}  // namespace

// A fortified build calls the __ form. Both take the C library's place in this executable.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
extern "C" {
void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}
void __syslog_chk(int priority, int, const char* format, ...);
void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  record(priority, format, arguments);
  va_end(arguments);
}
}
#pragma GCC diagnostic pop

namespace valtor::test {

LogCapture::LogCapture() {
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.lines.clear();
  store.recording = true;
}

LogCapture::~LogCapture() {
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.recording = false;
}

std::vector<LogLine> LogCapture::lines() const {
  const std::lock_guard<std::mutex> lock(store.mutex);
  return store.lines;
}

int LogCapture::count(int priority, const std::string& text) const {
  const std::vector<LogLine> all = lines();
  return static_cast<int>(std::count(all.begin(), all.end(), LogLine{priority, text}));
}

int LogCapture::countContaining(const std::string& part) const {
  const std::vector<LogLine> all = lines();
  return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogLine& line) {
    return line.text.find(part) != std::string::npos;
  }));
}

void LogCapture::clear() {
  const std::lock_guard<std::mutex> lock(store.mutex);
  store.lines.clear();
}

}  // namespace valtor::test
