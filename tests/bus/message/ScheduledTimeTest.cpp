#include <chrono>
#include <ctime>

#include "bus/BusSupport.h"
#include "bus/message/ScheduledTime.h"
#include "support/Vocabulary.h"

namespace valtor {
namespace {

constexpr int64_t kSecond = 1'000'000'000;  // ns
constexpr int64_t kMillisecond = 1'000'000;
constexpr time_t kNoon2037 = 2130062400;  // 1 July 2037, 12:00 UTC

// Zones and their offsets east of Greenwich; daylight saving is never taken into account.
const std::pair<const char*, int> kZones[] = {
    {"UTC0", 0}, {"IST-5:30", 19800}, {"YYY11", -39600}, {"CET-1CEST,M3.5.0,M10.5.0/3", 3600}};

void setZone(const char* rule) {
  setenv("TZ", rule, 1);
  tzset();
}

int64_t now() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

// The schedule time of a text in nanoseconds since the epoch; 0 when it leaves the header
// unscheduled.
int64_t scheduled(const std::string& text) {
  PellInternalHeader header;
  const JSONPtr element(cJSON_CreateString(text.c_str()));
  const bool taken = parseScheduledTime(header, element.get());
  EXPECT_EQ(taken, header.scheduledTime.tv_sec != 0);
  EXPECT_TRUE(header.scheduledTime.tv_nsec >= 0 && header.scheduledTime.tv_nsec < kSecond);
  return header.scheduledTime.tv_sec * kSecond + header.scheduledTime.tv_nsec;
}

TEST(ScheduledTime, AbsoluteTimesAreLocalStandardTimeAndMillisecondsAnIntegerInCNotation) {
  const std::pair<const char*, int64_t> rests[] = {
      {"", 0},           {".250", 250},      {".050", 40}, {".0x10", 16},
      {".61001", 61001}, {".-2500", -2500},  {"Z", 0},     {".2147483647", 2147483647},
      {".089", 0},       {".2147483648", 0}, {".5ms", 0},  {".", 0}};
  for (const auto& [rule, offset] : kZones) {
    setZone(rule);
    const test::LogCapture log;
    for (const auto& [rest, milliseconds] : rests) {
      EXPECT_EQ(scheduled("2037-07-01T12:00:00" + std::string(rest)),
                (kNoon2037 - offset) * kSecond + milliseconds * kMillisecond)
          << rule << rest;
    }
    EXPECT_EQ(log.lines(), std::vector<test::LogLine>(4, {LOG_INFO, "error decoding ms value.\n"}));
  }
  EXPECT_EQ(scheduled("2001-07-01T12:00:00"), 0);  // has passed
}

TEST(ScheduledTime, TimeOfDayIsOnTheCurrentUtcDateInLocalTime) {
  for (const auto& [rule, offset] : kZones) {
    setZone(rule);
    for (int hour = 0; hour < 24; ++hour) {
      const std::string text = (hour < 10 ? "0" : "") + std::to_string(hour) + ":59:30.7";
      const int64_t before = now();
      const int64_t result = scheduled(text);
      // What it must be at a given moment; both moments allow for a change of date in between.
      const auto expected = [hour, shift = offset](int64_t at) {
        const int64_t midnight = at / kSecond / 86400 * 86400;
        const int64_t target = (midnight + hour * 3600 + 3570 - shift) * kSecond + 7 * kMillisecond;
        return target > at ? target : 0;
      };
      EXPECT_TRUE(result == expected(before) || result == expected(now())) << rule << " " << text;
    }
  }
}

TEST(ScheduledTime, RelativeTimesKeepTheCurrentFraction) {
  const int64_t before = now();
  const int64_t result = scheduled("+23:59:59.-999");
  EXPECT_GE(result, before + 86398001 * kMillisecond);
  EXPECT_LE(result, now() + 86398001 * kMillisecond);
  EXPECT_EQ(scheduled("+00:00:01.-2000"), 0);
}

TEST(ScheduledTime, OtherTextsLeaveTheMessageUnscheduled) {
  const test::LogCapture log;
  for (const std::string text : {"", "soon", "-00:00:05", "2037-13-01T00:00:00", "1:2", "+",
                                 "+2037-07-01T00:00:00", "+24:00:00"}) {
    EXPECT_EQ(scheduled(text), 0) << text;
    EXPECT_EQ(log.count(LOG_WARNING, "Error parsing message time: " + text + "\n"),
              text[0] == '+' ? 1 : 0);
  }
}

TEST(ScheduledTime, DecodingAScheduledMessageLogsItsLocalTime) {
  setZone("CET-1CEST,M3.5.0,M10.5.0/3");
  const test::LogCapture log;
  const PellInternalMessage message =
      test::received("[\"CMD\",\"route\",1,2,\"2037-07-01T12:00:00.42\"]\n{}");
  // Written in standard time, shown in the summer time of that day.
  EXPECT_EQ(
      log.lines(),
      (std::vector<test::LogLine>{{LOG_INFO, "Message Scheduled at 2037-07-01T13:00:00.042\n"}}));
  EXPECT_EQ(message.encode(), "[\"CMD\", \"route\", 1, 2, \"datehere\"]\n{}");
}

}  // namespace
}  // namespace valtor
