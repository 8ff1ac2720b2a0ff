#include "support/LogSink.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <syslog.h>

namespace {

constexpr std::size_t kLongest = 131072;  // bytes, more than any line quotes

valtor::LogSink currentSink = nullptr;

void pass(int priority, const char* format, va_list arguments) {
  if (currentSink == nullptr) {
    return;
  }
  std::array<char, kLongest> text;
  std::vsnprintf(text.data(), text.size(), format, arguments);
  currentSink(priority, text.data());
}

}  // namespace

// A fortified build calls the __ form.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
extern "C" {
void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  pass(priority, format, arguments);
  va_end(arguments);
}
void __syslog_chk(int priority, int flag, const char* format, ...);
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  pass(priority, format, arguments);
  va_end(arguments);
}
}
#pragma GCC diagnostic pop

namespace valtor {

void setLogSink(LogSink sink) { currentSink = sink; }

std::string withoutLineFeeds(const std::string& text) {
  return text.substr(0, text.find_last_not_of('\n') + 1);
}

}  // namespace valtor
