#include <cerrno>
#include <csignal>
#include <cstdio>
#include <dlfcn.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>

#include "data/AbstractJSONTopLevelContainer.h"
#include "support/Vocabulary.h"

namespace {

constexpr int kStopped = 77;  // what a process exits with that a fault stopped

// What shall go wrong next in the calls that a save and a load are made of. They stand in this file
// before the C library's and go on to those.
struct Fault {
  std::string_view call;  // this one fails with the error
  int nth = 0;            // which call of that name, from 1
  int error = 0;
  int stopAfter = 0;  // after so many calls of any name the process ends as in a crash
};
constinit Fault fault;

template <class Result, class... Arguments>
Result pass(const char* name, Result failed, Arguments... arguments) {
  if (fault.call == name && --fault.nth == 0) {
    errno = fault.error;
    return failed;
  }
  const auto real = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name));
  const Result result = real(arguments...);
  if (--fault.stopAfter == 0) {
    _exit(kStopped);
  }
  return result;
}

}  // namespace

extern "C" {
FILE* fopen(const char* path, const char* mode) {
  return pass("fopen", static_cast<FILE*>(nullptr), path, mode);
}
size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
  return pass("fwrite", size_t{0}, data, size, count, file);
}
size_t fread(void* data, size_t size, size_t count, FILE* file) {
  return pass("fread", size_t{0}, data, size, count, file);
}
int fflush(FILE* file) { return pass("fflush", EOF, file); }
int fclose(FILE* file) { return pass("fclose", EOF, file); }
int fsync(int descriptor) { return pass("fsync", -1, descriptor); }
int rename(const char* from, const char* to) noexcept { return pass("rename", -1, from, to); }
int unlink(const char* path) noexcept { return pass("unlink", -1, path); }
}

namespace valtor::test {
namespace {

// The smallest container: one number. Below 0 it cannot be rendered.
class Settings : public AbstractJSONTopLevelContainer {
 public:
  explicit Settings(const std::string* directory, int number = 0)
      : AbstractJSONTopLevelContainer("settings", directory), value(number) {}

  const char* getObjectName() const override { return "settingsObject"; }
  int loadFromJSON(const cJSON* item) override {
    value = item->valueint;
    return 0;
  }
  JSONPtr toJSON() const override {
    return value < 0 ? nullptr : JSONPtr(cJSON_CreateNumber(value));
  }
  using AbstractJSONTopLevelContainer::writeToDisk;

  int value = 0;
};

// What a fresh container loads from the directory; -1 when it loads nothing.
int loadedFrom(const std::string& directory) {
  Settings settings(&directory);
  return settings.load() == 0 ? settings.value : -1;
}

class ContainerTest : public testing::Test {
 protected:
  const TemporaryFolder folder_;
  const std::string directory_ = folder_.path();
  const std::string path_ = directory_ + "/settings.json";
  const std::string previous_ = path_ + ".old";
  LogCapture log_;
};

TEST_F(ContainerTest, PreviousCopyHoldsWhatTheFileHeldOrIsGone) {
  ASSERT_EQ(rmdir(directory_.c_str()), 0);  // The first save makes it.
  const std::string first = "{\n\t\"version\":\t0,\n\t\"settingsObject\":\t1\n}";
  Settings(&directory_, 1).save(true);
  EXPECT_EQ(fileContent(path_), first);
  EXPECT_EQ(fileContent(previous_), "");
  Settings(&directory_, 2).save(true);
  EXPECT_EQ(fileContent(previous_), first);
  Settings(&directory_, 3).save(false);
  EXPECT_NE(access(previous_.c_str(), F_OK), 0);
  EXPECT_EQ(loadedFrom(directory_), 3);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(ContainerTest, LoadFallsBackToThePreviousCopy) {
  folder_.write("settings.json.old", R"({"settingsObject":5})");
  EXPECT_EQ(loadedFrom(directory_), 5);
  // A FIFO, whose opening would block for ever, is not taken for the file.
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  EXPECT_EQ(loadedFrom(directory_), 5);
  const std::string start = "settingsObject container could not open \"" + path_ + "\". ";
  EXPECT_EQ(log_.count(LOG_CRIT, start + "previous copy used.\n"), 2);
  ASSERT_EQ(remove(previous_.c_str()), 0);
  EXPECT_EQ(loadedFrom(directory_), -1);
  EXPECT_EQ(log_.count(LOG_CRIT, start + "Empty set used.\n"), 1);
}

TEST_F(ContainerTest, WhatCannotBeLoadedChangesNothingButTheVersion) {
  const std::string noJSON = "Not a valid JSON file: " + path_ + "\n";
  const std::string noObject =
      "Error decoding JSON object, path:" + path_ + ", objectName:settingsObject\n";
  Settings settings(&directory_, 9);
  for (const auto& [content, line] :
       {std::pair(std::string(), noJSON), std::pair(std::string(2000, '['), noJSON),
        std::pair(std::string("[1,2]"), noObject),
        std::pair(std::string(R"({"version":3.5})"), noObject)}) {
    folder_.write("settings.json", content);
    EXPECT_EQ(settings.load(), -1) << content;
    EXPECT_EQ(log_.lines().back().text, line) << content;
    EXPECT_EQ(log_.lines().back().priority, LOG_ERR);
  }
  settings.save(false);
  EXPECT_EQ(fileContent(path_), "{\n\t\"version\":\t3.5,\n\t\"settingsObject\":\t9\n}");
}

TEST_F(ContainerTest, LoadAbortsWhenTheFileCannotBeRead) {
  Settings settings(&directory_, 1);
  settings.save(false);
  fault = {"fread", 1, EIO};
  EXPECT_EXIT(settings.load(), testing::KilledBySignal(SIGABRT), "");
  fault = {};
}

TEST_F(ContainerTest, WhatCannotBeRenderedOrPlacedIsLogged) {
  Settings(&directory_, 1).save(false);
  Settings(&directory_, -1).save(false);
  EXPECT_EQ(log_.count(LOG_CRIT,
                       "settingsObject container SAVE FAILED: could not alloc JSON object for \"" +
                           path_ + "\".\n"),
            1);
  EXPECT_EQ(loadedFrom(directory_), 1);
  const std::string deep = directory_ + "/no/such";
  Settings(&deep, 2).save(false);
  const std::string line = "Error - couldn't open file " + deep + "/settings.json for writing\n";
  EXPECT_EQ(log_.count(LOG_ERR, line), 1);
}

TEST_F(ContainerTest, CallThatFailsIsLoggedAndLeavesTheNewestCompleteCopy) {
  const std::string write = "could not write \"" + path_ + ".new\" ";
  const std::string aside = "prev: rename \"" + path_ + " -> " + previous_;
  const std::string intoPlace = "current: rename \"" + path_ + ".new -> " + path_;
  const std::string sync = "could not sync the folder \"" + directory_ + "/\": ";
  const struct {
    Fault fault;
    std::string line;
    int result;
    int loaded;  // what is found afterwards: 1 was there, 2 was to be saved
  } cases[] = {
      {{"fopen", 1, EACCES}, write + "(13).\n", -1, 1},
      {{"fwrite", 1, ENOSPC}, write + "(28).\n", -1, 1},
      {{"fflush", 1, ENOSPC}, write + "(28).\n", -1, 1},
      {{"fsync", 1, EIO}, write + "(5).\n", -1, 1},
      {{"fclose", 1, EDQUOT}, write + "(122).\n", -1, 1},
      {{"rename", 1, EPERM}, "could not overwrite " + aside + "\" failed (1).\n", -1, 1},
      {{"rename", 2, EPERM}, "could not overwrite " + intoPlace + "\" failed (1).\n", -1, 1},
      {{"fsync", 2, EIO}, sync + "Input/output error.\n", 0, 2},
      {{"unlink", 1, EBUSY}, "could not remove \"" + previous_ + "\" (16).\n", -1, 2},
  };
  const OwnedJSON root = parseJSON(R"({"version":0,"settingsObject":2})");
  for (const auto& [given, line, result, loaded] : cases) {
    Settings(&directory_, 1).save(false);
    log_.clear();
    fault = given;
    EXPECT_EQ(Settings(&directory_).writeToDisk(path_, root.get(), false), result) << line;
    fault = {};
    const int priority = result == 0 ? LOG_WARNING : LOG_CRIT;
    EXPECT_EQ(log_.count(priority, "settingsObject container " + line), 1) << line;
    EXPECT_EQ(loadedFrom(directory_), loaded) << line;
  }
}

// Saves 2 in a child process that stops after so many calls; whether it stopped, rather than
// finished.
bool saveStopsAfter(int calls, const std::string& directory, bool keepPrevious) {
  const pid_t child = fork();
  if (child == 0) {
    fault.stopAfter = calls;
    Settings(&directory, 2).save(keepPrevious);
    _exit(0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  return WEXITSTATUS(status) == kStopped;
}

// From the given start, a save is stopped after every one of its calls. The file holds 1, its
// previous copy 0. A stop may lose the save, never what was there before it.
void stopSaveEverywhere(bool current, bool previous, bool keepPrevious) {
  const int before = current ? 1 : previous ? 0 : -1;
  bool isNew = false;
  int step = 0;
  for (bool stopped = true; stopped;) {
    ASSERT_LT(++step, 50);
    const TemporaryFolder folder;
    if (current) {
      folder.write("settings.json", R"({"settingsObject":1})");
    }
    if (previous) {
      folder.write("settings.json.old", R"({"settingsObject":0})");
    }
    stopped = saveStopsAfter(step, folder.path(), keepPrevious);
    const int found = loadedFrom(folder.path());
    EXPECT_TRUE(found == 2 || (!isNew && stopped && found == before)) << found << " at " << step;
    isNew = isNew || found == 2;
    Settings(&folder.path(), 3).save(keepPrevious);
    EXPECT_EQ(loadedFrom(folder.path()), 3) << "saved again after step " << step;
  }
  EXPECT_GT(step, 7) << "the save was not stopped at each of its calls";
}

TEST(ContainerCrashTest, LoaderFindsAWholeDocumentAfterEveryStep) {
  for (const bool current : {false, true}) {
    for (const bool previous : {false, true}) {
      stopSaveEverywhere(current, previous, false);
      stopSaveEverywhere(current, previous, true);
    }
  }
}

}  // namespace
}  // namespace valtor::test
