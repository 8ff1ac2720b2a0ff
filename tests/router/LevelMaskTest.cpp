#include <gtest/gtest.h>
#include <syslog.h>

#include "router/LevelMask.h"
#include "support/LogCapture.h"

namespace valtor::test {
namespace {

using Levels = std::vector<unsigned>;

std::string rendered(const LevelMask& mask) { return printJSON(mask.toJSON().get(), false); }

int load(LevelMask& mask, const std::string& text) {
  return mask.loadFromJSON(parseJSON(text).get());
}

TEST(LevelMaskTest, HoldsLevelsAcrossWords) {
  LevelMask mask(Levels{33, 0, 5, 5});
  EXPECT_EQ(mask.levels(), (Levels{0, 5, 33}));
  EXPECT_EQ(mask.lowBits(), 0x200000021U);
  EXPECT_EQ(mask.extent(), 34U);
  EXPECT_FALSE(mask.hasLevel(32));
  EXPECT_FALSE(mask.hasLevel(4000000000U));
  EXPECT_EQ(LevelMask(Levels{0, 31, 32}).levels(), (Levels{0, 31, 32}));
}

TEST(LevelMaskTest, BitsStandForLevels) {
  const LevelMask all(~std::uint64_t{0});
  EXPECT_EQ(all.extent(), 64U);
  EXPECT_EQ(all.levels().size(), 64U);
  EXPECT_EQ(LevelMask(std::uint64_t{1} << 40), LevelMask(Levels{40}));
  EXPECT_EQ(LevelMask(std::uint64_t{1} << 31).extent(), 32U);
  EXPECT_TRUE(LevelMask(std::uint64_t{0}).isEmpty());
}

TEST(LevelMaskTest, LoadAddsAndAnEmptyArrayFails) {
  LevelMask mask(Levels{1});
  EXPECT_EQ(load(mask, "[3]"), 0);
  EXPECT_EQ(rendered(mask), "[1,3]");
  for (const char* text : {"[]", "{}", R"({"a":7})", "7", "null"}) {
    EXPECT_EQ(load(mask, text), -1) << text;
  }
  EXPECT_EQ(rendered(mask), "[1,3]");
  mask.tag = 5;
  mask.reset();
  EXPECT_EQ(mask, LevelMask());
}

TEST(LevelMaskTest, ClearingTheHighestLevelKeepsTheExtentUntilTheNextChangeAtTheTop) {
  LevelMask mask(Levels{3, 5});
  mask.clearLevel(5);
  EXPECT_FALSE(mask.hasLevel(5));
  EXPECT_EQ(rendered(mask), "[3]");
  EXPECT_EQ(mask.extent(), 6U);
  EXPECT_NE(mask, LevelMask(Levels{3}));
  mask.clearLevel(3);
  EXPECT_FALSE(mask.isEmpty());
  mask.clearLevel(4000000000U);
  EXPECT_TRUE(mask.isEmpty());
  EXPECT_NE(mask, LevelMask()) << "a mask keeps its first word";
}

TEST(LevelMaskTest, IntersectionAndUnionNormalise) {
  const LevelMask low(Levels{1, 2});
  const LevelMask wide(Levels{2, 40, 100});
  EXPECT_EQ(LevelMask(wide, low), LevelMask(Levels{2}));
  EXPECT_EQ(LevelMask(low, wide), LevelMask(Levels{2}));
  LevelMask both(low);
  both |= wide;
  EXPECT_EQ(both, LevelMask(Levels{1, 2, 40, 100}));
  both &= LevelMask(Levels{7});
  EXPECT_TRUE(both.isEmpty());
  EXPECT_NE(LevelMask(Levels{0, 7}), LevelMask(Levels{1, 7}));
}

TEST(LevelMaskTest, LevelsOutsideTheRangeAreSkippedWithOneWarning) {
  const LogCapture log;
  LevelMask mask;
  EXPECT_EQ(load(mask, "[-1,65536,1e300,-1e300,4294967296,65535,7]"), 0);
  EXPECT_EQ(rendered(mask), "[7,65535]");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(
      log.count(LOG_WARNING, "LevelMask::loadFromJSON - 5 levels outside 0 to 65535 skipped.\n"),
      1);
}

// Walked by index, such an array would take hours.
TEST(LevelMaskTest, MillionElementsLoad) {
  const LogCapture log;
  std::string text = "[0";
  for (int level = 1; level < 1000000; ++level) {
    text += "," + std::to_string(level);
  }
  LevelMask mask;
  EXPECT_EQ(load(mask, text + "]"), 0);
  EXPECT_EQ(mask.levels().size(), 65536U);
  EXPECT_EQ(log.countContaining(" 934464 levels "), 1);
}

}  // namespace
}  // namespace valtor::test
