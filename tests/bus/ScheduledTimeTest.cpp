#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <utility>

#include "ReceivedMessage.h"
#include "bus/ScheduledTime.h"
#include "support/LogCapture.h"

namespace valtor {
namespace {

constexpr int64_t kSecond = 1'000'000'000;  // ns
constexpr int64_t kMillisecond = 1'000'000;
constexpr time_t kDay = 86400;
constexpr time_t kJuly2037 = 2130019200;  // 1 July 2037, 00:00 UTC

// The process's time zone while the object lives.
class TimeZone {
 public:
  explicit TimeZone(const char* rule) {
    setenv("TZ", rule, 1);
    tzset();
  }
  ~TimeZone() {
    unsetenv("TZ");
    tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
};

int64_t nanoseconds(const timespec& time) { return time.tv_sec * kSecond + time.tv_nsec; }

int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return nanoseconds(time);
}

// The schedule time of a text in nanoseconds since the epoch; 0 when it leaves the header
// unscheduled.
int64_t scheduled(const std::string& text) {
  PellInternalHeader header;
  const JSONPtr element(cJSON_CreateString(text.c_str()));
  const bool taken = parseScheduledTime(header, element.get());
  const int64_t time = nanoseconds(header.scheduledTime);
  EXPECT_EQ(taken, time != 0);
  EXPECT_GE(header.scheduledTime.tv_nsec, 0);
  EXPECT_LT(header.scheduledTime.tv_nsec, kSecond);
  return time;
}

TEST(ScheduledTime, AbsoluteTimesAreLocalStandardTime) {
  // The offsets are east of Greenwich; daylight saving is never taken into account.
  const std::pair<const char*, int> zones[] = {
      {"UTC0", 0}, {"XXX-5:30", 19800}, {"YYY8", -28800}, {"CET-1CEST,M3.5.0,M10.5.0/3", 3600}};
  for (const auto& [rule, offset] : zones) {
    const TimeZone zone(rule);
    EXPECT_EQ(scheduled("2037-07-01T12:34:56"), (kJuly2037 + 45296 - offset) * kSecond) << rule;
    EXPECT_EQ(scheduled("2037-07-01T12:34:56.789"),
              (kJuly2037 + 45296 - offset) * kSecond + 789 * kMillisecond)
        << rule;
    EXPECT_EQ(scheduled("2001-07-01T12:34:56"), 0) << rule;
  }
}

TEST(ScheduledTime, MillisecondsAreAnIntegerInCNotation) {
  const TimeZone zone("UTC0");
  const int64_t base = (kJuly2037 + 3600) * kSecond;
  const struct {
    const char* rest;
    int64_t milliseconds;
    bool reported;
  } cases[] = {{"", 0, false},
               {".250", 250, false},
               {".050", 40, false},
               {".0x10", 16, false},
               {".999", 999, false},
               {".1000", 1000, false},
               {".61001", 61001, false},
               {".-1", -1, false},
               {".-2500", -2500, false},
               {".2147483647", 2147483647, false},
               {".-2147483648", -2147483648LL, false},
               {".2147483648", 0, true},
               {".99999999999999999999", 0, true},
               {".089", 0, true},
               {".5ms", 0, true},
               {".", 0, true},
               {"Z", 0, false},
               {" .5", 0, false}};
  for (const auto& example : cases) {
    const test::LogCapture log;
    EXPECT_EQ(scheduled("2037-07-01T01:00:00" + std::string(example.rest)),
              base + example.milliseconds * kMillisecond)
        << example.rest;
    EXPECT_EQ(log.count(LOG_INFO, "error decoding ms value.\n"), example.reported ? 1 : 0);
    EXPECT_EQ(log.lines().size(), example.reported ? 1U : 0U);
  }
}

TEST(ScheduledTime, TimeOfDayIsOnTheCurrentUtcDateInLocalTime) {
  const std::pair<const char*, int> zones[] = {{"UTC0", 0}, {"XXX-11", 39600}, {"YYY11", -39600}};
  for (const auto& [rule, offset] : zones) {
    const TimeZone zone(rule);
    for (int hour = 0; hour < 24; ++hour) {
      const std::string text = (hour < 10 ? "0" : "") + std::to_string(hour) + ":59:30.7";
      const int64_t before = now();
      const int64_t result = scheduled(text);
      const int64_t after = now();
      // What it must be at a given moment; both moments allow for a change of date in between.
      const auto expected = [hour, shift = offset](int64_t at) {
        const int64_t midnight = at / kSecond / kDay * kDay;
        const int64_t target = (midnight + hour * 3600 + 3570 - shift) * kSecond + 7 * kMillisecond;
        return target > at ? target : 0;
      };
      EXPECT_TRUE(result == expected(before) || result == expected(after)) << rule << " " << text;
    }
  }
}

TEST(ScheduledTime, RelativeTimesKeepTheCurrentFraction) {
  const TimeZone zone("YYY8");  // plays no part
  const std::pair<const char*, int64_t> cases[] = {{"+00:00:05", 5 * kSecond},
                                                   {"+00:00:05.250", 5250 * kMillisecond},
                                                   {"+00:00:05.999", 5999 * kMillisecond},
                                                   {"+23:59:59.-999", 86398001 * kMillisecond},
                                                   {"+01:02:03 later", 3723 * kSecond}};
  for (const auto& [text, offset] : cases) {
    const test::LogCapture log;
    const int64_t before = now();
    const int64_t result = scheduled(text);
    EXPECT_GE(result - offset, before) << text;
    EXPECT_LE(result - offset, now()) << text;
    EXPECT_TRUE(log.lines().empty());
  }
  EXPECT_EQ(scheduled("+00:00:00"), 0);
  EXPECT_EQ(scheduled("+00:00:01.-2000"), 0);
}

TEST(ScheduledTime, OtherTextsLeaveTheMessageUnscheduled) {
  for (const char* text : {"+5", "+", "++00:00:05", "+2037-07-01T00:00:00", "+24:00:00"}) {
    const test::LogCapture log;
    EXPECT_EQ(scheduled(text), 0);
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.count(LOG_WARNING, "Error parsing message time: " + std::string(text) + "\n"), 1);
  }
  for (const char* text : {"", "soon", "datehere", "-00:00:05", "2037-13-01T00:00:00", "24:00:00",
                           "2037-07-01 10:00:00", "1:2"}) {
    const test::LogCapture log;
    EXPECT_EQ(scheduled(text), 0) << text;
    EXPECT_TRUE(log.lines().empty()) << text;
  }
  PellInternalHeader header;
  const JSONPtr number(cJSON_CreateNumber(0));
  EXPECT_FALSE(parseScheduledTime(header, number.get()));
  EXPECT_FALSE(parseScheduledTime(header, nullptr));
}

TEST(ScheduledTime, DecodingAScheduledMessageLogsItsLocalTime) {
  const TimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  const test::LogCapture log;
  const PellInternalMessage message =
      test::received("[\"CMD\",\"route\",1,2,\"2037-07-01T12:00:00.42\"]\n{}");
  EXPECT_TRUE(message.isScheduled());
  // Written in standard time, shown in the summer time of that day.
  EXPECT_EQ(log.count(LOG_INFO, "Message Scheduled at 2037-07-01T13:00:00.042\n"), 1);
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(message.encode(), "[\"CMD\", \"route\", 1, 2, \"datehere\"]\n{}");
}

}  // namespace
}  // namespace valtor
