#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "app/util/Console.h"
#include "support/ConsoleCapture.h"

namespace valtor {
namespace {

TEST(Console, PrefixIsLocalTimeWithTruncatedMilliseconds) {
  setenv("TZ", "UTC-2", 1);
  tzset();
  EXPECT_EQ(formatLogTimestamp(0, 5), "02:00:00.000\t");
  EXPECT_EQ(formatLogTimestamp(3661, 999999), "03:01:01.999\t");
  unsetenv("TZ");
  tzset();
}

TEST(Console, PrefixAndLineStayTogetherWhateverOtherThreadsPrint) {
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  std::string text;
  {
    const test::ConsoleCapture console;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([i] {
        for (int n = 0; n < kLines; ++n) {
          traceLine("thread %d line %d\n", i, n);
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    text = console.text();
  }
  const std::regex shape("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\tthread [0-9] line [0-9]+");
  std::istringstream lines(text);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    ASSERT_TRUE(std::regex_match(line, shape)) << line;
  }
  EXPECT_EQ(count, kThreads * kLines);
}

}  // namespace
}  // namespace valtor
