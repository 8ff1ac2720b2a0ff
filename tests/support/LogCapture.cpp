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
Store& store() {
  static Store& instance = *new Store;
  return instance;
}

void record(int priority, const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(static_cast<std::size_t>(std::max(length, 0)) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  const std::lock_guard<std::mutex> lock(store().mutex);
  if (store().recording) {
    store().lines.push_back({priority, text});
  }
}

}  // namespace

// A fortified build calls the __ forms. Both take the C library's place in this executable.
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
void vsyslog(int priority, const char* format, va_list arguments) {
  record(priority, format, arguments);
}
void __vsyslog_chk(int priority, int, const char* format, va_list arguments);
void __vsyslog_chk(int priority, int, const char* format, va_list arguments) {
  record(priority, format, arguments);
}
}
#pragma GCC diagnostic pop

namespace valtor::test {

LogCapture::LogCapture() {
  const std::lock_guard<std::mutex> lock(store().mutex);
  store().lines.clear();
  store().recording = true;
}

LogCapture::~LogCapture() {
  const std::lock_guard<std::mutex> lock(store().mutex);
  store().recording = false;
}

std::vector<LogLine> LogCapture::lines() const {
  const std::lock_guard<std::mutex> lock(store().mutex);
  return store().lines;
}

int LogCapture::count(int priority, const std::string& text) const {
  int found = 0;
  for (const LogLine& line : lines()) {
    found += line.priority == priority && line.text == text ? 1 : 0;
  }
  return found;
}

int LogCapture::countContaining(const std::string& part) const {
  int found = 0;
  for (const LogLine& line : lines()) {
    found += line.text.find(part) != std::string::npos ? 1 : 0;
  }
  return found;
}

void LogCapture::clear() {
  const std::lock_guard<std::mutex> lock(store().mutex);
  store().lines.clear();
}

}  // namespace valtor::test
