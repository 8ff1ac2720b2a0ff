#include <algorithm>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <regex>
#include <sstream>
#include <sys/socket.h>

#include "app/util/Console.h"
#include "app/util/ConsoleWriter.h"
#include "support/Vocabulary.h"

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

TEST(ConsoleWriter, LeavesOutWholeLinesThatNobodyTakesAndSaysSo) {
  int ends[3][2] = {{-1, -1}, {-1, -1}, {-1, -1}};
  ASSERT_EQ(pipe2(ends[0], O_CLOEXEC), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends[1]), 0);
  ASSERT_EQ(openpty(&ends[2][0], &ends[2][1], nullptr, nullptr, nullptr), 0);
  for (const auto& [readEnd, writeEnd] : ends) {
    const UniqueDescriptor reader(readEnd);
    const UniqueDescriptor end(writeEnd);
    ConsoleWriter writer(end.get());
    const std::string line(999, 'x');
    for (int n = 0; n < 3000; ++n) {
      writer.write(line + "\n");
    }
    std::string text;
    const std::regex told(
        "\\n[0-9]+ bytes of the trace are missing: nobody read them.\\r?\\nnext\\r?\\n");
    EXPECT_TRUE(test::eventually([&] {
      char bytes[4096];
      for (pollfd entry{reader.get(), POLLIN, 0}; poll(&entry, 1, 0) == 1;) {
        text.append(bytes, static_cast<std::size_t>(read(reader.get(), bytes, sizeof bytes)));
      }
      writer.write("next\n");
      return std::regex_search(text.substr(text.size() - std::min<std::size_t>(text.size(), 200)),
                               told);
    }));
  }
}

}  // namespace
}  // namespace valtor
