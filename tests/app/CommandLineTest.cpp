#include <cstdio>
#include <sys/wait.h>

#include "app/CommandLine.h"
#include "support/Vocabulary.h"

namespace valtor {
namespace {

constexpr int kQuiet = LOG_UPTO(LOG_INFO);
constexpr int kVerbose = LOG_UPTO(LOG_DEBUG);

bool follow(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "valtor-remote");
  arguments.push_back(nullptr);
  optind = 0;  // a new command line for getopt
  setlogmask(kQuiet);
  return followCommandLine(static_cast<int>(arguments.size()) - 1,
                           const_cast<char* const*>(arguments.data()));
}

TEST(CommandLine, OptionsCountInAnyOrderAndWhatIsUnknownIsIgnored) {
  const struct {
    std::vector<const char*> arguments;
    bool skipsDatabase;
    int mask;
  } cases[] = {{{}, false, kQuiet},
               {{"-m"}, true, kQuiet},
               {{"-m", "-v"}, true, kVerbose},
               {{"-vm"}, true, kVerbose},
               {{"--", "-m"}, false, kQuiet},
               {{"operand", "-m"}, true, kQuiet},
               {{"-x", "-v"}, false, kVerbose}};
  const test::ConsoleCapture complaints(stderr);
  for (const auto& [arguments, skipsDatabase, mask] : cases) {
    EXPECT_EQ(complaints.text(), "");
    const test::LogCapture log;
    const std::string shown = testing::PrintToString(arguments);
    EXPECT_EQ(follow(arguments), skipsDatabase) << shown;
    EXPECT_EQ(setlogmask(0), mask) << shown;
    EXPECT_EQ(log.count(LOG_INFO, "verbose logging enabled.\n"), mask == kVerbose) << shown;
  }
  EXPECT_TRUE(complaints.contains("invalid option -- 'x'"));
}

TEST(CommandLine, DetachingGoesWithVerboseInBothOrders) {
  for (const char* order : {"-vd", "-dv"}) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      follow({order});
      std::error_code ignored;
      // What the process that is left knows about itself.
      const std::string text = "mask " + std::to_string(setlogmask(0)) +
                               (getsid(0) == getpid() ? ", leads" : ", follows") + ", prints to " +
                               std::filesystem::read_symlink("/proc/self/fd/1", ignored).string();
      _exit(write(ends[1], text.data(), text.size()) > 0 ? 0 : 1);
    }
    close(ends[1]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);  // the process that was started ends at once
    EXPECT_EQ(status, 0);
    char text[256] = "";
    EXPECT_GT(read(ends[0], text, sizeof text - 1), 0);
    EXPECT_STREQ(text, "mask 255, leads, prints to /dev/null") << order;
    close(ends[0]);
  }
}

}  // namespace
}  // namespace valtor
