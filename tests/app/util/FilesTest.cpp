#include <cstring>
#include <gtest/gtest.h>
#include <stdexcept>
#include <sys/stat.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>

#include "app/util/Files.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace valtor {
namespace {

template <class Action>
std::string messageOf(Action action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "nothing thrown";
}

TEST(Files, ReadJoinsOrKeepsLines) {
  const test::TemporaryFolder folder;
  struct Case {
    const char* content;
    const char* joined;
    const char* kept;
  };
  for (const Case& c : {Case{"a\nb", "ab", "a\nb\n"}, Case{"", "", ""}, Case{"\n\n", "", "\n\n"},
                        Case{"x\n", "x", "x\n"}}) {
    const std::string path = folder.write("file", c.content);
    EXPECT_EQ(readTextFile(path, false), c.joined);
    EXPECT_EQ(readTextFile(path, true), c.kept);
  }
}

TEST(Files, ReadFailuresNameThePath) {
  const test::TemporaryFolder folder;
  const std::string missing = folder.at("missing");
  EXPECT_EQ(messageOf([&] { readTextFile(missing, false); }),
            "error while opening file: " + missing);
  ASSERT_EQ(mkfifo(folder.at("fifo").c_str(), 0600), 0);
  for (const std::string& path : {folder.path(), folder.at("fifo")}) {
    EXPECT_EQ(messageOf([&] { readTextFile(path, false); }), "error while opening file: " + path);
  }
}

TEST(Files, SaveReplacesTheContentAndLogsItsSize) {
  const test::TemporaryFolder folder;
  const test::LogCapture log;
  const std::string path = folder.write("file", "a longer text than the next");
  saveTextFile(path, "short");
  EXPECT_EQ(test::fileContent(path), "short");
  saveTextFile(path, "");
  EXPECT_EQ(test::fileContent(path), "");
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[0].priority, LOG_INFO);
  EXPECT_EQ(log.lines()[0].text.rfind("saveTextFile (" + path + " - 5 bytes) took ", 0), 0U);
  EXPECT_EQ(log.countContaining(" - 0 bytes) took "), 1);
}

TEST(Files, SaveRefusesWhatIsNoRegularFile) {
  const test::TemporaryFolder folder;
  const std::string target = folder.write("target", "precious");
  ASSERT_EQ(symlink(target.c_str(), folder.at("link").c_str()), 0);
  ASSERT_EQ(mkfifo(folder.at("fifo").c_str(), 0600), 0);
  for (const std::string& path :
       {folder.at("link"), folder.at("fifo"), folder.path(), folder.at("no/such/folder")}) {
    EXPECT_EQ(messageOf([&] { saveTextFile(path, "x"); }), "error while opening file: " + path);
  }
  EXPECT_EQ(test::fileContent(target), "precious");
  EXPECT_EQ(messageOf([] { saveTextFile("/dev/full", "x"); }),
            "error while opening file: /dev/full");
}

TEST(Files, EnsureDirectoryMakesOneLevelForTheOwnerOnly) {
  const test::TemporaryFolder folder;
  const std::string made = folder.at("made");
  ensureDirectory(made);
  struct stat status {};
  ASSERT_EQ(stat(made.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  ensureDirectory(folder.write("file", "x"));
  const std::string deep = folder.at("a/b");
  EXPECT_EQ(messageOf([&] { ensureDirectory(deep); }), "mkdir" + deep + ": " + strerror(ENOENT));
  EXPECT_THROW(ensureDirectory(deep), std::system_error);
}

TEST(Files, ActiveDatabaseNameLosesOnlyTrailingWhiteSpace) {
  const test::TemporaryFolder folder;
  folder.write("activeDatabase.json", "main db 2\n  ");
  EXPECT_EQ(readActiveDatabaseName(folder.path() + "/"), "main db 2");
  folder.write("activeDatabase.json", " \t\r\n");
  EXPECT_EQ(readActiveDatabaseName(folder.path() + "/"), "");
}

}  // namespace
}  // namespace valtor
