#include <gtest/gtest.h>
#include <ostream>
#include <sys/wait.h>
#include <unistd.h>

#include "Settings.h"
#include "SystemCalls.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace valtor::test {
namespace {

struct Start {
  const char* name;
  bool current;
  bool previous;
  bool keepPrevious;
};

void PrintTo(const Start& start, std::ostream* out) { *out << start.name; }

// Saves 2 in a child process that stops after the given call; whether it stopped, rather than
// finished.
bool saveStopsAfter(int step, const std::string& directory, bool keepPrevious) {
  const pid_t child = fork();
  if (child == 0) {
    const Settings settings(&directory, 2);
    SystemCalls calls;
    calls.stopAfter(step);
    settings.save(keepPrevious);
    _exit(0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_TRUE(WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == SystemCalls::kStopped);
  return WEXITSTATUS(status) == SystemCalls::kStopped;
}

class ContainerCrashTest : public testing::TestWithParam<Start> {};

// The file holds 1, its previous copy 0. A stop may lose the save, never what was there before it.
TEST_P(ContainerCrashTest, LoaderFindsAWholeDocumentAfterEveryStep) {
  const Start& start = GetParam();
  const LogCapture log;
  const int before = start.current ? 1 : start.previous ? 0 : -1000;
  bool isNew = false;
  int step = 1;
  for (bool stopped = true; stopped; ++step) {
    ASSERT_LT(step, 50);
    const TemporaryFolder folder;
    if (start.current) {
      folder.write("settings.json", R"({"settingsObject":1})");
    }
    if (start.previous) {
      folder.write("settings.json.old", R"({"settingsObject":0})");
    }
    stopped = saveStopsAfter(step, folder.path(), start.keepPrevious);
    const int found = loadedFrom(folder.path());
    EXPECT_TRUE(found == 2 || (!isNew && stopped && found == before))
        << "found " << found << " after step " << step;
    isNew = isNew || found == 2;
    Settings(&folder.path(), 3).save(start.keepPrevious);
    EXPECT_EQ(loadedFrom(folder.path()), 3) << "saved again after step " << step;
  }
  EXPECT_GE(step, 11) << "the save was not stopped at each of its calls";
}

const Start kStarts[] = {
    {"FirstSave", false, false, false},   {"FirstSaveKept", false, false, true},
    {"Current", true, false, false},      {"CurrentKept", true, false, true},
    {"Both", true, true, false},          {"BothKept", true, true, true},
    {"PreviousOnly", false, true, false}, {"PreviousOnlyKept", false, true, true},
};

INSTANTIATE_TEST_SUITE_P(EveryStart, ContainerCrashTest, testing::ValuesIn(kStarts),
                         [](const testing::TestParamInfo<Start>& made) { return made.param.name; });

}  // namespace
}  // namespace valtor::test
