#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <ostream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "Settings.h"
#include "SystemCalls.h"
#include "app/util/ErrnoText.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace valtor::test {
namespace {

class ContainerTest : public testing::Test {
 protected:
  bool isThere(const std::string& name) const {
    return access(folder_.at(name).c_str(), F_OK) == 0;
  }

  const TemporaryFolder folder_;
  const std::string directory_ = folder_.path();
  const std::string path_ = directory_ + "/settings.json";
  const LogCapture log_;
};

TEST_F(ContainerTest, FirstSaveWritesTheDocumentAndNoPreviousCopy) {
  Settings(&directory_, 7).save(true);
  EXPECT_EQ(fileContent(path_), "{\n\t\"version\":\t0,\n\t\"settingsObject\":\t7\n}");
  EXPECT_FALSE(isThere("settings.json.old"));
  EXPECT_FALSE(isThere("settings.json.new"));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ContainerTest, PreviousCopyHoldsWhatTheFileHeldOrIsGone) {
  Settings(&directory_, 1).save(false);
  const std::string first = fileContent(path_);
  Settings(&directory_, 2).save(true);
  EXPECT_EQ(fileContent(path_ + ".old"), first);
  EXPECT_EQ(loadedFrom(directory_), 2);
  Settings(&directory_, 3).save(false);
  EXPECT_FALSE(isThere("settings.json.old"));
  EXPECT_EQ(loadedFrom(directory_), 3);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ContainerTest, VersionSurvivesLoadAndSave) {
  folder_.write("settings.json", R"({"version":3.5,"settingsObject":1})");
  Settings settings(&directory_);
  ASSERT_EQ(settings.load(), 0);
  settings.save(false);
  EXPECT_EQ(fileContent(path_), "{\n\t\"version\":\t3.5,\n\t\"settingsObject\":\t1\n}");
  folder_.write("settings.json", R"({"settingsObject":2})");
  ASSERT_EQ(settings.load(), 0);
  EXPECT_EQ(settings.version(), 3.5);
}

TEST_F(ContainerTest, FirstSaveMakesTheDirectory) {
  const std::string directory = folder_.at("made");
  const mode_t mask = umask(0);
  Settings(&directory, 4).save(false);
  umask(mask);
  struct stat status = {};
  ASSERT_EQ(stat(directory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, mode_t{0755});
  EXPECT_EQ(loadedFrom(directory), 4);
}

TEST_F(ContainerTest, WithoutADirectoryTheFileLiesInTheWorkingDirectory) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory_);
  Settings("plain").save(false);
  std::filesystem::current_path(before);
  EXPECT_TRUE(isThere("plain.json"));
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ContainerTest, LoadFallsBackToThePreviousCopy) {
  folder_.write("settings.json.old", R"({"settingsObject":5})");
  const std::string line =
      "settingsObject container could not open \"" + path_ + "\". previous copy used.\n";
  EXPECT_EQ(loadedFrom(directory_), 5);
  EXPECT_EQ(log_.count(LOG_CRIT, line), 1);
  // Neither a folder nor a FIFO, whose opening would block for ever, is taken for the file.
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  EXPECT_EQ(loadedFrom(directory_), 5);
  ASSERT_EQ(rmdir(path_.c_str()), 0);
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(loadedFrom(directory_), 5);
  EXPECT_EQ(log_.count(LOG_CRIT, line), 3);
}

TEST_F(ContainerTest, WhatCannotBeLoadedChangesNothing) {
  const std::string invalid = "Not a valid JSON file: " + path_ + "\n";
  Settings settings(&directory_, 9);
  EXPECT_EQ(settings.load(), -1);
  EXPECT_EQ(log_.count(LOG_CRIT, "settingsObject container could not open \"" + path_ +
                                     "\". Empty set used.\n"),
            1);
  EXPECT_EQ(log_.count(LOG_ERR, invalid), 1);
  for (const std::string& content :
       {std::string(), std::string("no JSON"), std::string("\0\xff\x01", 3), std::string(2000, '['),
        std::string(R"({"settingsObject":4)")}) {
    folder_.write("settings.json", content);
    EXPECT_EQ(settings.load(), -1) << content;
  }
  EXPECT_EQ(log_.count(LOG_ERR, invalid), 6);
  EXPECT_EQ(settings.value, 9);
}

TEST_F(ContainerTest, DocumentWithoutTheObjectFailsButGivesItsVersion) {
  const std::string line =
      "Error decoding JSON object, path:" + path_ + ", objectName:settingsObject\n";
  Settings settings(&directory_, 9);
  for (const char* content : {R"({"version":2})", "[1,2]", "17", R"("settingsObject")"}) {
    folder_.write("settings.json", content);
    EXPECT_EQ(settings.load(), -1) << content;
  }
  EXPECT_EQ(log_.count(LOG_ERR, line), 4);
  EXPECT_EQ(settings.version(), 2);
  EXPECT_EQ(settings.value, 9);
  folder_.write("settings.json", R"({"settingsObject":-3})");
  EXPECT_EQ(settings.load(), -1) << "the result of the object's own loading";
}

// After a power cut only what was synced is sure to be there.
TEST_F(ContainerTest, SyncsTheNewCopyBeforeAndTheFolderAfterTheRenames) {
  Settings(&directory_, 1).save(false);
  const Settings settings(&directory_, 2);
  std::vector<std::string> seen;
  {
    const SystemCalls calls;
    settings.save(false);
    seen = calls.seen();
  }
  const std::vector<std::string> durable = {"fwrite", "fflush", "fsync", "fclose",
                                            "rename", "rename", "fsync", "unlink"};
  ASSERT_GE(seen.size(), durable.size());
  EXPECT_EQ(std::vector<std::string>(seen.end() - static_cast<std::ptrdiff_t>(durable.size()),
                                     seen.end()),
            durable);
}

int allocationsLeft = 0;

void* failingMalloc(size_t size) {
  // The hooks of cJSON are malloc and free.
  return --allocationsLeft < 0 ? nullptr : std::malloc(size);  // NOLINT(*-no-malloc)
}

TEST_F(ContainerTest, EveryAllocationThatFailsLeavesTheFileAlone) {
  Settings(&directory_, 1).save(false);
  const Settings settings(&directory_, 2);
  const std::array<std::string, 3> reasons = {
      "settingsObject container SAVE FAILED: could not alloc root JSON object for \"" + path_ +
          "\".\n",
      "settingsObject container SAVE FAILED: could not alloc JSON object for \"" + path_ + "\".\n",
      "settingsObject container could not alloc memory to render \"" + path_ + "\".\n"};
  std::array<int, 3> times = {};
  int before = 0;
  for (int allowed = 0; loadedFrom(directory_) == 1; ++allowed) {
    ASSERT_LT(allowed, 100);
    cJSON_Hooks hooks = {failingMalloc, std::free};
    allocationsLeft = allowed;
    cJSON_InitHooks(&hooks);
    settings.save(false);
    cJSON_InitHooks(nullptr);
    int now = 0;
    for (std::size_t index = 0; index < reasons.size(); ++index) {
      times[index] = log_.count(LOG_CRIT, reasons[index]);
      now += times[index];
    }
    EXPECT_EQ(now, before + (loadedFrom(directory_) == 1 ? 1 : 0)) << allowed;
    before = now;
  }
  EXPECT_EQ(loadedFrom(directory_), 2);
  for (std::size_t index = 0; index < reasons.size(); ++index) {
    EXPECT_GT(times[index], 0) << reasons[index];
  }
}

struct Failure {
  const char* call;
  int nth;
  int error;
  int priority;      // of the line; -1: nothing is logged
  const char* line;  // "@" stands for the path
  int result;
  int loaded;  // what is found afterwards: 1 was there, 2 was to be saved
};

void PrintTo(const Failure& failure, std::ostream* out) {
  *out << failure.call << " number " << failure.nth;
}

// The path in place of every "@".
std::string expanded(const std::string& text, const std::string& path) {
  std::string result;
  for (const char character : text) {
    result += character == '@' ? path : std::string(1, character);
  }
  return result;
}

class ContainerFailureTest : public ContainerTest, public testing::WithParamInterface<Failure> {};

TEST_P(ContainerFailureTest, IsLoggedAndLeavesTheNewestCompleteCopy) {
  const Failure& failure = GetParam();
  Settings(&directory_, 1).save(false);
  const Settings settings(&directory_, 2);
  const OwnedJSON root = parseJSON(R"({"version":0,"settingsObject":2})");
  int result = 0;
  {
    SystemCalls calls;
    calls.fail(failure.call, failure.nth, failure.error);
    result = settings.writeToDisk(path_, root.get(), false);
  }
  EXPECT_EQ(result, failure.result);
  if (failure.priority < 0) {
    EXPECT_TRUE(log_.lines().empty());
  } else {
    ASSERT_FALSE(log_.lines().empty());
    EXPECT_EQ(log_.lines().back().text, expanded(failure.line, path_));
    EXPECT_EQ(log_.lines().back().priority, failure.priority);
  }
  EXPECT_EQ(loadedFrom(directory_), failure.loaded);
  Settings(&directory_, 3).save(false);
  EXPECT_EQ(loadedFrom(directory_), 3) << "the next save must not suffer";
  EXPECT_FALSE(isThere("settings.json.old"));
}

#define OBJECT "settingsObject container "
const Failure kFailures[] = {
    {"fopen", 1, EACCES, LOG_CRIT, OBJECT "could not write \"@.new\" (13).\n", -1, 1},
    {"fwrite", 1, ENOSPC, LOG_CRIT, OBJECT "could not write \"@.new\" (28).\n", -1, 1},
    {"fflush", 1, ENOSPC, LOG_CRIT, OBJECT "could not write \"@.new\" (28).\n", -1, 1},
    {"fsync", 1, EIO, LOG_CRIT, OBJECT "could not write \"@.new\" (5).\n", -1, 1},
    {"fclose", 1, EDQUOT, LOG_CRIT, OBJECT "could not write \"@.new\" (122).\n", -1, 1},
    {"rename", 1, EPERM, LOG_CRIT,
     OBJECT "could not overwrite prev: rename \"@ -> @.old\" failed (1).\n", -1, 1},
    {"rename", 2, EPERM, LOG_CRIT,
     OBJECT "could not overwrite current: rename \"@.new -> @\" failed (1).\n", -1, 1},
    {"unlink", 1, EBUSY, LOG_CRIT, OBJECT "could not remove \"@.old\" (16).\n", -1, 2},
    {"unlink", 1, ENOENT, -1, "", 0, 2},
    {"stat", 1, EACCES, -1, "", 0, 2},
    {"stat", 2, EACCES, -1, "", 0, 2},
};
#undef OBJECT

INSTANTIATE_TEST_SUITE_P(EachCall, ContainerFailureTest, testing::ValuesIn(kFailures),
                         [](const testing::TestParamInfo<Failure>& made) {
                           return std::string(made.param.call) + std::to_string(made.index);
                         });

TEST_F(ContainerTest, FileThatCannotBeOpenedForWritingIsNamed) {
  const Settings settings(&directory_, 2);
  SystemCalls calls;
  calls.fail("fopen", 1, EMFILE);
  settings.save(false);
  EXPECT_EQ(log_.count(LOG_ERR, "Error - couldn't open file " + path_ + " for writing\n"), 1);
}

TEST_F(ContainerTest, FolderThatCannotBeSyncedIsOnlyAWarning) {
  Settings(&directory_, 1).save(false);
  {
    const Settings settings(&directory_, 2);
    SystemCalls calls;
    calls.fail("fsync", 2, EIO);
    settings.save(false);
  }
  EXPECT_EQ(log_.count(LOG_WARNING, "settingsObject container could not sync the folder \"" +
                                        directory_ + "/\": " + errnoText(EIO) + ".\n"),
            1);
  EXPECT_EQ(log_.lines().size(), 1U);
  EXPECT_EQ(loadedFrom(directory_), 2);
  EXPECT_FALSE(isThere("settings.json.old"));
}

TEST_F(ContainerTest, DirectoryThatCannotBeMadeFailsTheSave) {
  const std::string missing = folder_.at("missing");
  const Settings settings(&missing, 2);
  {
    SystemCalls calls;
    calls.fail("mkdir", 1, EROFS);
    settings.save(false);
  }
  EXPECT_EQ(log_.count(LOG_CRIT, "settingsObject container could not write \"" + missing +
                                     "/settings.json.new\" (2).\n"),
            1);
}

const LogCapture* childLog = nullptr;
std::string expectedLine;

// Whether loading aborts the process after exactly that line, in a child process.
bool loadAbortsWith(const std::string& directory, const char* call, const std::string& line) {
  const pid_t child = fork();
  if (child == 0) {
    const LogCapture log;
    childLog = &log;
    expectedLine = line;
    std::signal(SIGABRT, [](int) {
      _exit(childLog->count(LOG_CRIT, expectedLine) == 1 ? SystemCalls::kStopped : 1);
    });
    Settings settings(&directory);
    SystemCalls calls;
    calls.fail(call, 1, EIO);
    settings.load();
    _exit(2);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == SystemCalls::kStopped;
}

TEST_F(ContainerTest, LoadAbortsWhenTheFileCannotBeReadOrHeld) {
  Settings(&directory_, 1).save(false);
  EXPECT_TRUE(
      loadAbortsWith(directory_, "fread",
                     "Reading error loading " + path_ + " from disk: " + errnoText(EIO) + "\n"));
  EXPECT_TRUE(
      loadAbortsWith(directory_, "ftell",
                     "Memory error loading " + path_ + " from disk: " + errnoText(ENOMEM) + "\n"));
}

}  // namespace
}  // namespace valtor::test
