#include <gtest/gtest.h>

#include "e2e/EndToEnd.h"

namespace valtor::test {
namespace {

class ProcessTest : public EndToEndTest {};

TEST_F(ProcessTest, WithTheDatabaseSkippedItWaitsForARoleOtherThanStandby) {
  site.startController("standby");
  startDaemon({"-m"});
  ASSERT_TRUE(eventually([&] {
    return site.controller->countPassed([](const PassedMessage& one) {
      return one.source == 101 && one.kind == MessageKind::RSP && one.path == "system";
    }) == 1;
  }));
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 0U);
  (*site.controller)->setRole("active");
  EXPECT_TRUE(site.becomesComplete());
  EXPECT_TRUE(isServed());
}

TEST_F(ProcessTest, AnUnknownOptionIsReportedAndStartUpGoesOn) {
  startDaemon({"-x", "-v", "operand"});
  EXPECT_TRUE(site.becomesComplete());
  EXPECT_TRUE(daemon->prints("invalid option -- 'x'"));
}

TEST_F(ProcessTest, ABusThatComesLaterIsFound) {
  site.controller.reset();
  startDaemon();
  EXPECT_TRUE(BridgeSite::becomesLinked(*site.alpha));
  site.startController();
  EXPECT_TRUE(site.becomesComplete());
  EXPECT_TRUE(commandReaches(*site.alpha));
}

TEST_F(ProcessTest, WithoutStandardStreamsNothingItPrintsGetsOnTheBus) {
  startDaemon({}, DaemonProcess::Streams::Closed);
  ASSERT_TRUE(site.becomesComplete());
  EXPECT_TRUE(isServed());
  EXPECT_TRUE(commandReaches(*site.alpha));
  EXPECT_TRUE(statusArrivesFrom(*site.alpha));
  EXPECT_EQ(site.controller->countEvents("ACCEPT"), 1U);
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 1U);
}

TEST_F(ProcessTest, AConsoleThatNobodyReadsAnyMoreDoesNotEndIt) {
  startDaemon({}, DaemonProcess::Streams::Unreadable);
  ASSERT_TRUE(site.becomesComplete());
  EXPECT_TRUE(isServed());
  EXPECT_TRUE(commandReaches(*site.alpha));
}

}  // namespace
}  // namespace valtor::test
