#include <stdexcept>

#include "router/RouteOperation.h"
#include "support/Vocabulary.h"

namespace valtor::test {
namespace {

using Levels = std::vector<unsigned>;

TEST(LevelMaskTest, HoldsAndCombinesLevelsAcrossWords) {
  LevelMask mask(Levels{33, 0, 5, 5});
  EXPECT_EQ(mask.lowBits(), 0x200000021U);
  EXPECT_EQ(LevelMask(mask.lowBits()), mask);
  const LevelMask wide(Levels{5, 40, 100});
  EXPECT_EQ(LevelMask(wide, mask), LevelMask(Levels{5}));
  LevelMask both(mask);
  both |= wide;
  EXPECT_EQ(both, LevelMask(Levels{0, 5, 33, 40, 100}));
  mask.clearLevel(33);
  EXPECT_EQ(mask.levels(), (Levels{0, 5}));
  EXPECT_EQ(mask.extent(), 34U) << "stays until the next change at the top";
}

TEST(LevelMaskTest, LevelsOutsideTheRangeAreSkippedWithOneWarning) {
  const LogCapture log;
  EXPECT_EQ(loaded<LevelMask>("[-1,65536,1e300,-1e300,4294967296,65535,7]"), "[7,65535]");
  const char* line = "LevelMask::loadFromJSON - 5 levels outside 0 to 65535 skipped.\n";
  EXPECT_EQ(log.count(LOG_WARNING, line), 1);
}

TEST(RouteOperationTest, ConstructorsFillWhatTheyName) {
  const Levels levels = {0, 2};
  const LevelMask mask(levels);
  ProtectStatusItem lock;
  lock.status = ProtectStatusItem::kLock;
  EXPECT_EQ(rendered(RouteOperation(7, mask)), R"({"level":[0,2],"destination":[7]})");
  EXPECT_EQ(rendered(RouteOperation(7, mask, 9, true)),
            R"({"level":[0,2],"machineControl":true,"status":[[7,[9]]]})");
  EXPECT_EQ(rendered(RouteOperation(7, mask, lock)), R"({"level":[0,2],"protect":[[7,[[2,0]]]]})");
  EXPECT_THROW(RouteOperation(-1, mask, lock), std::runtime_error);
  const LogCapture log;
  EXPECT_EQ(rendered(RouteOperation(7, levels, {9, 8, 6})),
            R"({"level":[0,2],"status":[[7,[9,8,6]]]})");
  const char* line = "RouteOperation parameter mismatch, num levels=2, num sources=3\n";
  EXPECT_EQ(log.count(LOG_WARNING, line), 1);
}

TEST(RouteOperationTest, ListLoadsWholeOrThrows) {
  const auto loaded = RouteOperation::loadList(parseJSON(R"([{"level":[1]},{"level":[2]}])").get());
  ASSERT_EQ(loaded.size(), 2U);
  EXPECT_EQ(rendered(loaded[1]), R"({"level":[2]})");
  EXPECT_THROW(RouteOperation::loadList(parseJSON(R"([{"level":[1]},{}])").get()),
               std::runtime_error);
}

}  // namespace
}  // namespace valtor::test
