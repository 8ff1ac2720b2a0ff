#include <gtest/gtest.h>

#include "e2e/EndToEnd.h"

namespace valtor::test {
namespace {

class BridgeTest : public EndToEndTest {
 protected:
  // What the sender put on the node's bus, as "KIND path", logins and roles left out.
  static std::vector<std::string> sentBy(const std::string& sender, const RunningNode& node) {
    std::vector<std::string> list;
    for (const PassedMessage& one : node.passed()) {
      if (one.from == sender && one.path.rfind("system", 0) != 0) {
        list.push_back(std::string(kindName(one.kind)) + " " + one.path);
      }
    }
    return list;
  }
  static std::size_t countHolding(const RunningNode& node, const std::string& part) {
    return node.countPassed(
        [&](const PassedMessage& one) { return one.payload->find(part) != std::string::npos; });
  }
  bool prints(const std::string& text) const {
    return eventually([&] { return daemon->console().find(text) != std::string::npos; });
  }
};

TEST_F(BridgeTest, ARouteCommandReachesEveryRouterOnceAndItsAnswerOnlyTheController) {
  startComplete();
  const std::string command = "[\"CMD\", \"route\", 490, 0, 0]\n{ \"id\":\"take\", \"n\" : 1.50 }";
  EXPECT_TRUE(BridgeSite::crosses(*site.controller, *site.alpha, command));
  const std::string answer = "[\"RSP\", \"route\", 100, 490, 0]\n{\"id\":\"take\" ,\"ok\":true}";
  EXPECT_TRUE(BridgeSite::crosses(*site.alpha, *site.controller, answer));
  EXPECT_TRUE(commandReaches(*site.alpha));
  EXPECT_TRUE(commandReaches(*site.beta));
  EXPECT_EQ(BridgeSite::count(*site.alpha, command), 1U);
  EXPECT_EQ(BridgeSite::count(*site.beta, command), 1U);
  EXPECT_EQ(BridgeSite::count(*site.controller, answer), 1U);
  EXPECT_EQ(BridgeSite::count(*site.beta, answer), 0U);
}

TEST_F(BridgeTest, LinkUpRequestsGoToTheControllerAndTheirAnswersToTheRouter) {
  writeActiveDatabase(site.alphaEntry());
  startDaemon();
  EXPECT_TRUE(eventually([&] { return sentBy("alpha", *site.alpha).size() == 2; }));
  EXPECT_EQ(sentBy("valtorRemote", *site.controller),
            (std::vector<std::string>{"NOT device", "GET db", "CMD route"}));
  EXPECT_EQ(countHolding(*site.controller, R"("objectName":["logicalSources","logicalDests"])"),
            1U);
  EXPECT_EQ(sentBy("alpha", *site.alpha), (std::vector<std::string>{"RSP db", "RSP route"}));
  EXPECT_EQ(countHolding(*site.alpha, R"("param":{"logicalSources":[11],"logicalDests":[12]})"),
            1U);
  EXPECT_EQ(countHolding(*site.alpha, R"("param":{"stat":[13]})"), 1U);
}

TEST_F(BridgeTest, ARouterThatWasKilledIsLinkedAgainAndCarries) {
  startComplete();
  site.controller->forget();
  site.alpha.reset();
  EXPECT_TRUE(
      eventually([&] { return countHolding(*site.controller, "\"connected\":false") == 1; }));
  EXPECT_TRUE(commandReaches(*site.beta));
  site.alpha = site.start(BridgeSite::kAlphaAddress);
  EXPECT_TRUE(BridgeSite::becomesLinked(*site.alpha));
  EXPECT_TRUE(commandReaches(*site.alpha));
  EXPECT_TRUE(statusArrivesFrom(*site.alpha));
  EXPECT_EQ(countHolding(*site.controller, "\"connected\":true"), 1U);
}

TEST_F(BridgeTest, AControllerThatRestartedMeetsALoginWithTheInterface) {
  startComplete();
  EXPECT_EQ(site.controller->countEvents("LOGIN"), 1U);
  EXPECT_EQ(site.controller->countEvents("interface="), 0U);
  site.startController();
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.controller));
  EXPECT_EQ(site.controller->countEvents("id=101 interface=[{"), 1U);
  EXPECT_TRUE(commandReaches(*site.alpha));
  EXPECT_TRUE(statusArrivesFrom(*site.beta));
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 1U);  // that link stood all the time
}

TEST_F(BridgeTest, StandbyDropsTheLinksAndActiveBringsThemBack) {
  startComplete();
  (*site.controller)->setRole("standby");
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.alpha) && BridgeSite::becomesLeft(*site.beta));
  (*site.controller)->setRole("active");
  EXPECT_TRUE(site.becomesComplete());
  EXPECT_TRUE(commandReaches(*site.alpha));
  EXPECT_TRUE(statusArrivesFrom(*site.beta));
  site.startController("standby");  // the role is asked for on every new link
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.alpha) && BridgeSite::becomesLeft(*site.beta));
}

TEST_F(BridgeTest, WithTheDatabaseSkippedTheLinksWaitForARoleOtherThanStandby) {
  site.startController("standby");
  startDaemon("-m");
  ASSERT_TRUE(eventually([&] { return site.answeredRoles() == 1; }));
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 0U);
  (*site.controller)->setRole("active");
  EXPECT_TRUE(site.becomesComplete());
  EXPECT_TRUE(isServed());
}

TEST_F(BridgeTest, WithoutStandardStreamsOrAReaderOfTheConsoleItServesAllTheSame) {
  for (const auto streams : {DaemonProcess::Streams::Closed, DaemonProcess::Streams::Unreadable}) {
    startDaemon("-v", streams);
    EXPECT_TRUE(site.becomesComplete());
    EXPECT_TRUE(isServed());
    EXPECT_TRUE(commandReaches(*site.alpha));
    EXPECT_TRUE(statusArrivesFrom(*site.alpha));
    daemon->stop();
    EXPECT_TRUE(BridgeSite::becomesLeft(*site.controller) && BridgeSite::becomesLeft(*site.alpha));
  }
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 2U);
}

TEST_F(BridgeTest, WhatARuleBlocksIsPrintedWithTheRulesName) {
  startComplete();
  // From now on alpha expects database answers for this host only.
  EXPECT_TRUE(BridgeSite::crosses(*site.alpha, *site.controller,
                                  "[\"GET\", \"db\", 100, 0, 0]\n{\"id\":\"7@1.001122\"}"));
  struct Case {
    RunningNode& bus;
    std::string header;
    std::string body;
    std::string rule;
  };
  for (const Case& one : std::vector<Case>{
           {*site.controller, R"(["SET", "device", 490, 0, 0])", "{}", "isConnectionPointConfig"},
           {*site.controller, R"(["NOT", "system", 489, 100, 0])", "{}", "isSystemMessage"},
           {*site.controller, R"(["GET", "device", 490, 0, 0])",
            R"({"objectName":["a","deviceInfo"]})", "isDeviceInfoGET"},
           {*site.controller, R"(["RSP", "db", 100, 0, 0])", R"({"id":"7@1.334455"})",
            "isDatabaseRSPForMe"},
           {*site.alpha, R"(["GET", "route", 2, 0, 0])", "{}", "reqIDSupported"},
           {*site.alpha, R"(["NOT", "device", 100, 0, 0])", "{}", "isConnectionPointConfig"},
           {*site.alpha, R"(["SET", "system", 490, 10000, 0])", "{}", "isSystemSETMessage"},
           {*site.alpha, R"(["RSP", "device", 100, 10000, 0])", R"({"param":{"deviceInfo":1}})",
            "isDeviceInfoRSP"}}) {
    one.bus->injectPayload(one.header + "\n" + one.body);
    const std::string direction = &one.bus == site.alpha.get() ? "peer->master" : "master->peer";
    EXPECT_TRUE(
        prints("\t" + direction + " filter blocked " + one.header + " (rule:" + one.rule + ")\n"))
        << one.header;
  }
  EXPECT_TRUE(BridgeSite::crosses(*site.controller, *site.alpha,
                                  "[\"RSP\", \"db\", 100, 0, 0]\n{\"id\":\"7@1.001122\"}"));
  EXPECT_TRUE(BridgeSite::crosses(*site.controller, *site.alpha,
                                  "[\"SET\", \"system\", 490, 100, 0]\n{ \"a\": 1 }"));
  EXPECT_TRUE(prints("\tPassed System Message: {\"a\":1}\n"));
}

}  // namespace
}  // namespace valtor::test
