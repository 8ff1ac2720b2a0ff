#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "app/CommandLine.h"
#include "app/util/UniqueDescriptor.h"
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
    bool complains;
  };
  const test::ConsoleCapture complaints(stderr);
  std::size_t before = 0;
  for (const Case& one : std::vector<Case>{{{}, false, kQuiet, false},
                                           {{"-m"}, true, kQuiet, false},
                                           {{"-m", "-v"}, true, kVerbose, false},
                                           {{"-v", "-m"}, true, kVerbose, false},
                                           {{"-vm"}, true, kVerbose, false},
                                           {{"-x", "-m"}, true, kQuiet, true},
                                           {{"-v", "-x"}, false, kVerbose, true},
                                           {{"--", "-m"}, false, kQuiet, false},
                                           {{"operand", "-m"}, true, kQuiet, false}}) {
    const test::LogCapture log;
    const std::string shown = testing::PrintToString(one.arguments);
    EXPECT_EQ(follow(one.arguments), one.skipsDatabase) << shown;
    EXPECT_EQ(setlogmask(0), one.mask) << shown;
    EXPECT_EQ(log.count(LOG_INFO, "verbose logging enabled.\n"), one.mask == kVerbose) << shown;
    EXPECT_EQ(complaints.text().size() > before, one.complains) << shown;
    before = complaints.text().size();
  }
  EXPECT_TRUE(complaints.contains("invalid option -- 'x'"));
}

// What the process that is left after the options knows about itself.
struct Detached {
  int mask = 0;
  int verboseLines = 0;
  bool newSession = false;
  bool sameFolder = false;
  char output[32] = "";
};

Detached describe(const test::LogCapture& log, const char* folder) {
  Detached state;
  state.mask = setlogmask(0);
  state.verboseLines = log.count(LOG_INFO, "verbose logging enabled.\n");
  state.newSession = getsid(0) == getpid();
  char here[4096] = "";
  state.sameFolder = getcwd(here, sizeof here) != nullptr && std::strcmp(here, folder) == 0;
  state.output[readlink("/proc/self/fd/1", state.output, sizeof state.output - 1) > 0 ? 31 : 0] = 0;
  return state;
}

TEST(CommandLine, DetachingKeepsFolderAndMaskAndSendsTheStreamsAway) {
  char folder[4096];
  ASSERT_NE(getcwd(folder, sizeof folder), nullptr);
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"-v", "-d"}, std::vector<std::string>{"-d", "-v"}}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    UniqueDescriptor readEnd(ends[0]);
    UniqueDescriptor writeEnd(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
      const test::LogCapture log;
      follow(arguments);
      const Detached state = describe(log, folder);
      _exit(write(writeEnd.get(), &state, sizeof state) == sizeof state ? 0 : 1);
    }
    writeEnd.reset();
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);  // the process that was started ends at once
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    Detached state;
    ASSERT_EQ(read(readEnd.get(), &state, sizeof state), static_cast<ssize_t>(sizeof state));
    EXPECT_EQ(state.mask, kVerbose);
    EXPECT_EQ(state.verboseLines, 1);
    EXPECT_TRUE(state.newSession);
    EXPECT_TRUE(state.sameFolder);
    EXPECT_STREQ(state.output, "/dev/null");
  }
}

}  // namespace
}  // namespace valtor
