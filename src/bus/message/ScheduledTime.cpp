#include "bus/message/ScheduledTime.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"

namespace valtor {

namespace {

enum class Form { Absolute, TimeOfDay, Relative };

// A schedule time as it was written.
struct WrittenTime {
  Form form = Form::Absolute;
  std::tm fields{};
  int milliseconds = 0;
};

// The rest of the text behind the time: "." and milliseconds, or something to ignore.
int readMilliseconds(const char* rest) {
  if (*rest != '.') {
    return 0;
  }
  const char* digits = rest + 1;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(digits, &end, 0);
  if (errno != 0 || end == digits || *end != '\0' || !std::in_range<int>(value)) {
    syslog(LOG_INFO, "error decoding ms value.\n");
    return 0;
  }
  return static_cast<int>(value);
}

bool readWrittenTime(const char* text, WrittenTime& written) {
  const char* rest = nullptr;
  if (*text == '+') {
    written.form = Form::Relative;
    rest = strptime(text + 1, "%T", &written.fields);
    if (rest == nullptr) {
      syslog(LOG_WARNING, "Error parsing message time: %s\n", quotedForLog(text).c_str());
    }
  } else {
    rest = strptime(text, "%FT%T", &written.fields);
    if (rest == nullptr) {
      // A failed attempt may have filled fields already.
      written.fields = {};
      written.form = Form::TimeOfDay;
      rest = strptime(text, "%T", &written.fields);
    }
  }
  if (rest == nullptr || rest == text) {
    return false;
  }
  written.milliseconds = readMilliseconds(rest);
  return true;
}

// Seconds since the epoch, without the milliseconds. Local times are standard time: tm_isdst is 0.
int64_t targetSeconds(WrittenTime& written, time_t now) {
  std::tm& fields = written.fields;
  if (written.form == Form::Relative) {
    return int64_t{now} + fields.tm_sec + int64_t{60} * fields.tm_min +
           int64_t{3600} * fields.tm_hour;
  }
  if (written.form == Form::Absolute) {
    return mktime(&fields);
  }
  std::tm today{};
  gmtime_r(&now, &today);
  today.tm_hour = fields.tm_hour;
  today.tm_min = fields.tm_min;
  today.tm_sec = fields.tm_sec;
  return mktime(&today);
}

}  // namespace

bool parseScheduledTime(PellInternalHeader& header, const cJSON* element) {
  constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
  constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;
  const char* text = cJSON_GetStringValue(element);
  WrittenTime written;
  if (text == nullptr || !readWrittenTime(text, written)) {
    return false;
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  int64_t seconds = targetSeconds(written, now.tv_sec);
  int64_t nanoseconds = kNanosecondsPerMillisecond * written.milliseconds;
  if (written.form == Form::Relative) {
    nanoseconds += now.tv_nsec;
  }
  seconds += nanoseconds / kNanosecondsPerSecond;
  nanoseconds %= kNanosecondsPerSecond;
  if (nanoseconds < 0) {
    nanoseconds += kNanosecondsPerSecond;
    --seconds;
  }
  if (!std::in_range<time_t>(seconds) ||
      std::pair(seconds, nanoseconds) <= std::pair<int64_t, int64_t>(now.tv_sec, now.tv_nsec)) {
    return false;
  }
  header.scheduledTime.tv_sec = static_cast<time_t>(seconds);
  header.scheduledTime.tv_nsec = static_cast<long>(nanoseconds);
  return true;
}

}  // namespace valtor
