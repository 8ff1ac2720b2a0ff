#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <thread>

#include "app/util/Console.h"
#include "support/ConsoleCapture.h"

namespace valtor {
namespace {

TEST(Console, PrefixIsLocalTimeWithTruncatedMilliseconds) {
  setenv("TZ", "UTC-2", 1);
  tzset();
  EXPECT_EQ(formatLogTimestamp(3661, 999999), "03:01:01.999\t");
  unsetenv("TZ");
  tzset();
}

TEST(Console, PrefixAndLineStayTogetherWhateverOtherThreadsPrint) {
  const test::ConsoleCapture console;
  const auto print = [] {
    for (int n = 0; n < 1000; ++n) {
      traceLine("line %d\n", n);
    }
  };
  std::thread other(print);
  print();
  other.join();
  const std::regex shape("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\tline [0-9]+");
  std::istringstream lines(console.text());
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    ASSERT_TRUE(std::regex_match(line, shape)) << line;
  }
  EXPECT_EQ(count, 2000);
}

}  // namespace
}  // namespace valtor
