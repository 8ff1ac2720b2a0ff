#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "app/CommandLine.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"

namespace valtor {
namespace {

constexpr int kQuiet = LOG_UPTO(LOG_INFO);
constexpr int kVerbose = LOG_UPTO(LOG_DEBUG);

bool follow(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "valtor-remote");
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  optind = 0;  // a new command line for getopt
  setlogmask(kQuiet);
  return followCommandLine(static_cast<int>(arguments.size()), argv.data());
}

TEST(CommandLine, OptionsCountInAnyOrderAndWhatIsUnknownIsIgnored) {
  struct Case {
    std::vector<std::string> arguments;
    bool skipsDatabase;
    int mask;
  };
  const test::ConsoleCapture complaints(stderr);
  for (const Case& one : std::vector<Case>{{{}, false, kQuiet},
                                           {{"-m"}, true, kQuiet},
                                           {{"-m", "-v"}, true, kVerbose},
                                           {{"-v", "-m"}, true, kVerbose},
                                           {{"-vm"}, true, kVerbose},
                                           {{"--", "-m"}, false, kQuiet},
                                           {{"operand", "-m"}, true, kQuiet},
                                           {{"-x", "-v"}, false, kVerbose}}) {
    EXPECT_EQ(complaints.text(), "");
    const test::LogCapture log;
    const std::string shown = testing::PrintToString(one.arguments);
    EXPECT_EQ(follow(one.arguments), one.skipsDatabase) << shown;
    EXPECT_EQ(setlogmask(0), one.mask) << shown;
    EXPECT_EQ(log.count(LOG_INFO, "verbose logging enabled.\n"), one.mask == kVerbose) << shown;
  }
  EXPECT_TRUE(complaints.contains("invalid option -- 'x'"));
}

// In the process that is left after the options: what it knows about itself.
std::string describeDetached(const std::vector<std::string>& arguments) {
  const test::LogCapture log;
  follow(arguments);
  char output[64] = "";
  const bool read = readlink("/proc/self/fd/1", output, sizeof output - 1) > 0;
  return "mask " + std::to_string(setlogmask(0)) + ", verbose lines " +
         std::to_string(log.count(LOG_INFO, "verbose logging enabled.\n")) +
         (getsid(0) == getpid() ? ", leads" : ", follows") + ", prints to " +
         (read ? output : "nowhere");
}

TEST(CommandLine, DetachingGoesWithVerboseInBothOrders) {
  for (const char* order : {"-vd", "-dv"}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      const std::string text = describeDetached({order});
      _exit(write(ends[1], text.data(), text.size()) > 0 ? 0 : 1);
    }
    close(ends[1]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);  // the process that was started ends at once
    EXPECT_EQ(status, 0);
    char text[256] = "";
    EXPECT_GT(read(ends[0], text, sizeof text - 1), 0);
    EXPECT_STREQ(text, "mask 255, verbose lines 1, leads, prints to /dev/null") << order;
    close(ends[0]);
  }
}

}  // namespace
}  // namespace valtor
