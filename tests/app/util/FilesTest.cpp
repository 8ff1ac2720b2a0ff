#include <cstring>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/stat.h>

#include "app/util/Files.h"
#include "support/Sanitized.h"
#include "support/Vocabulary.h"

namespace valtor {
namespace {

TEST(Files, ReadJoinsOrKeepsLines) {
  const test::TemporaryFolder folder;
  const std::string path = folder.write("file", "a\n\nb");
  EXPECT_EQ(readTextFile(path, false), "ab");
  EXPECT_EQ(readTextFile(path, true), "a\n\nb\n");
}

TEST(Files, WithoutADescriptorAFileIsWorthAnotherTryAndAMissingOneIsNot) {
  if (test::kSanitized) {
    GTEST_SKIP() << "the sanitizer itself wants a descriptor";
  }
  const test::TemporaryFolder folder;
  const std::string path = folder.write("file", "there");
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{0, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_THROW(readTextFile(path, false), ReadFault);
  try {
    readTextFile(folder.at("missing"), false);
  } catch (const ReadFault&) {
    ADD_FAILURE() << "it will not come by waiting";
  } catch (const std::runtime_error&) {
  }
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(readTextFile(path, false), "there");
}

TEST(Files, SaveReplacesTheContentAndLogsItsSize) {
  const test::TemporaryFolder folder;
  const test::LogCapture log;
  const std::string path = folder.write("file", "a longer text than the next");
  saveTextFile(path, "short");
  EXPECT_EQ(test::fileContent(path), "short");
  EXPECT_EQ(log.countContaining("saveTextFile (" + path + " - 5 bytes) took "), 1);
}

TEST(Files, WhatIsNoRegularFileIsNeitherReadNorWritten) {
  const test::TemporaryFolder folder;
  const std::string target = folder.write("target", "precious");
  const std::string link = folder.at("link");
  const std::string fifo = folder.at("fifo");
  ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path :
       {link, fifo, folder.path(), folder.at("no/such"), std::string("/dev/full")}) {
    EXPECT_EQ(test::thrownBy([&] { saveTextFile(path, "x"); }),
              "error while opening file: " + path);
  }
  for (const std::string& path : {fifo, folder.at("missing")}) {
    EXPECT_EQ(test::thrownBy([&] { readTextFile(path, false); }),
              "error while opening file: " + path);
  }
  const std::string huge = folder.write("huge", "");
  ASSERT_EQ(truncate(huge.c_str(), (off_t{64} << 20) + 1), 0);
  for (const std::string& path : {folder.path(), huge}) {
    EXPECT_EQ(test::thrownBy([&] { readTextFile(path, false); }),
              "error while reading file: " + path);
  }
  EXPECT_EQ(test::fileContent(target), "precious");
}

TEST(Files, EnsureDirectoryMakesOneLevelForTheOwnerOnly) {
  const test::TemporaryFolder folder;
  const std::string made = folder.at("made");
  ensureDirectory(made);
  struct stat status {};
  ASSERT_EQ(stat(made.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  ensureDirectory(made);
  const std::string deep = folder.at("a/b");
  EXPECT_EQ(test::thrownBy([&] { ensureDirectory(deep); }),
            "mkdir" + deep + ": " + strerror(ENOENT));
}

}  // namespace
}  // namespace valtor
