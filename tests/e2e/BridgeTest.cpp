#include "e2e/EndToEnd.h"

namespace valtor::test {
namespace {

using BridgeTest = EndToEndTest;

TEST_F(BridgeTest, LinksStandInEveryRoleButStandby) {
  site.startController("standby");
  startDaemon("-m");
  ASSERT_TRUE(eventually([&] { return site.answeredRoles() == 1; }));
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 0U);
  (*site.controller)->setRole("active");
  EXPECT_TRUE(site.becomesComplete());
  EXPECT_TRUE(site.isServed());

  site.startController();  // what ends and comes back leaves the routers' links alone
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.controller));
  EXPECT_EQ(site.controller->countEvents("id=101 interface=[{"), 1U);
  EXPECT_TRUE(site.commandReaches(*site.alpha));
  EXPECT_TRUE(site.statusArrivesFrom(*site.beta));
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 1U);

  (*site.controller)->setRole("standby");
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.alpha) && BridgeSite::becomesLeft(*site.beta));
  (*site.controller)->setRole("active");
  EXPECT_TRUE(site.becomesComplete());
  EXPECT_TRUE(site.statusArrivesFrom(*site.beta));
  site.startController("standby");  // the role is asked for on every new link
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.alpha) && BridgeSite::becomesLeft(*site.beta));
}

TEST_F(BridgeTest, WithoutStandardStreamsOrAReaderOfTheConsoleItServesAllTheSame) {
  for (const char* redirections : {"<&- >&- 2>&-", "> >(true) 2>&1"}) {
    startDaemon("-v", redirections);
    EXPECT_TRUE(site.becomesComplete());
    EXPECT_TRUE(site.isServed());
    EXPECT_TRUE(site.commandReaches(*site.alpha));
    EXPECT_TRUE(site.statusArrivesFrom(*site.alpha));
    endDaemon();
    EXPECT_TRUE(BridgeSite::becomesLeft(*site.controller) && BridgeSite::becomesLeft(*site.alpha));
  }
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 2U);
}

TEST_F(BridgeTest, ATraceThatNobodyReadsHoldsNothingUpAndSaysWhatIsMissing) {
  startDaemon("", "3<>\"$(mkfifo trace; echo trace)\" >&3 2>&1");
  ASSERT_TRUE(site.becomesComplete() && site.isServed());
  const std::string path = daemon->folder().at("trace");
  const UniqueDescriptor trace(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::filesystem::remove(path);
  // Such a message is traced whole.
  const std::string moreThanAPipeHolds(200'000, 'x');
  EXPECT_TRUE(BridgeSite::crosses(
      *site.controller, *site.alpha,
      "[\"SET\", \"system\", 490, 100, 0]\n{\"pad\":\"" + moreThanAPipeHolds + "\"}"));
  EXPECT_TRUE(site.commandReaches(*site.alpha));
  std::string text;
  EXPECT_TRUE(eventually([&] {
    char bytes[4096];
    for (ssize_t count = 1; (count = read(trace.get(), bytes, sizeof bytes)) > 0;) {
      text.append(bytes, static_cast<std::size_t>(count));
    }
    return site.commandReaches(*site.beta) &&
           text.find(" bytes of the trace are missing: nobody read them.\n") != std::string::npos;
  }));
}

TEST_F(BridgeTest, WhatARuleBlocksIsPrintedWithTheRulesName) {
  startComplete();
  const std::string header = R"(["GET", "route", 2, 0, 0])";
  (*site.alpha)->injectPayload(header + "\n{}");
  const std::string line = "\tpeer->master filter blocked " + header + " (rule:reqIDSupported)\n";
  EXPECT_TRUE(eventually([&] { return daemon->out().find(line) != std::string::npos; }));
}

}  // namespace
}  // namespace valtor::test
