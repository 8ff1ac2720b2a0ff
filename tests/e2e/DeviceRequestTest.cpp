#include <gtest/gtest.h>

#include "app/util/OwnedJSON.h"
#include "e2e/EndToEnd.h"

namespace valtor::test {
namespace {

namespace fs = std::filesystem;

class DeviceRequestTest : public EndToEndTest {
 protected:
  static std::string points(const std::string& entries) {
    return R"("param":{"connectionPoint":[)" + entries + "]}";
  }
  void update(const std::string& entries) {
    (*site.controller)->inject(490, "UPDATE", "device", 0, "{" + points(entries) + "}");
  }
  bool lists(const std::string& part) { return list().find(part) != std::string::npos; }
  // A member of the "param" of the answer to a "GET" for it, as compact text.
  std::string get(const std::string& object) {
    const OwnedJSON answer = parseJSON("{" + ask("GET", R"("objectName":[")" + object + "\"]"));
    const cJSON* param = cJSON_GetObjectItem(answer.get(), "param");
    return printJSON(cJSON_GetObjectItem(param, object.c_str()), false);
  }
  bool isDone(const std::string& kind, const std::string& members) {
    return ask(kind, members) ==
           R"("requestCommand":")" + kind + R"(","statusCode":200,"statusMsg":"OK"})";
  }

  const std::string stateFile = paths().containerDirectory + "/valtorConnectionPointMgr.json";
};

TEST_F(DeviceRequestTest, UpdateAddsMovesAndDisablesRouters) {
  startComplete();
  const auto gamma = site.start("127.0.0.4");
  update(routerEntry("gamma", "127.0.0.4", kPort));
  EXPECT_TRUE(BridgeSite::becomesLinked(*gamma));
  EXPECT_TRUE(commandReaches(*gamma));
  EXPECT_TRUE(statusArrivesFrom(*gamma));

  const auto elsewhere = site.start("127.0.0.5");
  update(routerEntry("alpha", "127.0.0.5", kPort));
  EXPECT_TRUE(BridgeSite::becomesLinked(*elsewhere));
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.alpha));
  EXPECT_TRUE(commandReaches(*elsewhere));
  EXPECT_TRUE(lists(R"("ipAddress":"127.0.0.5")"));
  EXPECT_FALSE(lists(R"("ipAddress":"127.0.0.2")"));

  update(routerEntry("beta", "127.0.0.3", kPort, R"(,"enabled":false)"));
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.beta));
  EXPECT_TRUE(lists(R"("enabled":false,"connected":false)"));
  update(routerEntry("beta", "127.0.0.3", kPort, R"(,"enabled":true)"));
  EXPECT_TRUE(BridgeSite::becomesLinked(*site.beta));
}

TEST_F(DeviceRequestTest, DeletedRoutersAreAnnouncedAndTheDescriptionIsOnDisk) {
  startComplete();
  EXPECT_FALSE(fs::exists(stateFile));
  EXPECT_TRUE(isDone("DEL", R"("objectBase":"connectionPoint","objectName":["beta","x"])"));
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.beta));
  const std::string beta = R"({"type":"valtor","name":"beta")";
  EXPECT_EQ(site.controller->countPassed([&](const PassedMessage& one) {
    return one.body().find(R"("paramDelete":{"connectionPoint":[)" + beta) != std::string::npos;
  }),
            1U);
  EXPECT_FALSE(lists(beta));
  const OwnedJSON saved = parseJSON(fileContent(stateFile));
  const std::string description =
      printJSON(cJSON_GetObjectItem(saved.get(), "connectionPointManager"), false);
  EXPECT_EQ(description,
            R"({"type":"valtor","phy":[{"type":"tcp","ipAddress":"192.168.1.2","port":15000,)"
            R"("server":true}]})");
  EXPECT_EQ(get("connectionPointManager"), "[" + description + "]");
  EXPECT_FALSE(fs::exists(stateFile + ".new") || fs::exists(stateFile + ".old"));
}

TEST_F(DeviceRequestTest, SetReloadsTheListAndSavesTheDescription) {
  startComplete();
  const auto gamma = site.start("127.0.0.4");
  EXPECT_TRUE(
      isDone("SET", points(site.betaEntry() + "," + routerEntry("gamma", "127.0.0.4", kPort))));
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.alpha));
  EXPECT_TRUE(BridgeSite::becomesLinked(*gamma));
  EXPECT_FALSE(lists("\"alpha\""));
  EXPECT_TRUE(commandReaches(*site.beta));
  EXPECT_EQ(site.beta->countEvents("ACCEPT"), 1U);  // what stays the same stays linked
  EXPECT_TRUE(fs::exists(stateFile));
}

TEST_F(DeviceRequestTest, IncomingClientsAreListedOnTheBusAndOnDisk) {
  writeActiveDatabase(site.alphaEntry() +
                      R"(,{"type":"valtor","name":"in","uniqueID":"in","phy":[{"type":"tcp",)"
                      R"("ipAddress":"127.0.0.9","port":15000,"server":false}]})");
  startDaemon();
  const std::string onBus = get("serverConnectionPoint");
  EXPECT_EQ(onBus.rfind(R"([{"type":"valtor","name":"in","uniqueID":"in","phy":[)", 0), 0U);
  EXPECT_FALSE(lists(R"("uniqueID":"in")"));
  EXPECT_EQ(fileContent(paths().incomingClientDirectory + "valtorIncomingClientConnections.json"),
            R"({"serverConnectionPoint":)" + onBus + R"(,"type":"valtor"})");
  EXPECT_EQ(fs::status(paths().incomingClientDirectory).permissions(), fs::perms(0777));
  EXPECT_TRUE(isDone("SET", points(site.betaEntry())));
  EXPECT_EQ(get("serverConnectionPoint"), onBus);  // a reload is not about them
}

}  // namespace
}  // namespace valtor::test
