#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "app/util/OwnedJSON.h"
#include "e2e/EndToEnd.h"

namespace valtor::test {
namespace {

namespace fs = std::filesystem;

class DeviceRequestTest : public EndToEndTest {
 protected:
  // The manager's description as it lies on the disk.
  static std::string stateFile() {
    return paths().containerDirectory + "/valtorConnectionPointMgr.json";
  }
  static std::string incomingFile() {
    return paths().incomingClientDirectory + "valtorIncomingClientConnections.json";
  }
  static std::string pointList(const std::string& entries) {
    return R"("param":{"connectionPoint":[)" + entries + "]}";
  }

  void update(const std::string& entries) {
    (*site.controller)->inject(490, "UPDATE", "device", 0, "{" + pointList(entries) + "}");
  }
  // The connection points as the daemon lists them.
  std::string list() { return ask("GET", "device", R"("objectName":["connectionPoint"])").at(0); }
  bool lists(const std::string& part) { return list().find(part) != std::string::npos; }
  // A member of the "param" of the daemon's answer to a "GET" for it, as compact text.
  std::string paramOf(const std::string& object) {
    const std::string answer = ask("GET", "device", R"("objectName":[")" + object + "\"]").at(0);
    const OwnedJSON body = parseJSON(answer);
    return printJSON(cJSON_GetObjectItem(cJSON_GetObjectItem(body.get(), "param"), object.c_str()),
                     false);
  }
  bool isAnsweredOK(const std::string& kind, const std::string& members) {
    const std::string answer = ask(kind, "device", members).at(0);
    return answer.find("\"requestCommand\":\"" + kind + "\",\"statusCode\":200") !=
           std::string::npos;
  }
};

TEST_F(DeviceRequestTest, EveryRouterIsListedWithItsState) {
  site.beta.reset();
  startDaemon();
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.alpha));
  ASSERT_TRUE(eventually([&] { return routeRequests() == 1; }));
  EXPECT_EQ(paramOf("connectionPoint"),
            R"([{"type":"valtor","name":"alpha","uniqueID":"alpha","phy":[{"type":"tcp",)"
            R"("ipAddress":"127.0.0.2","port":15000,"server":true}],"enabled":true,)"
            R"("connected":true,"showInUI":true},)"
            R"({"type":"valtor","name":"beta","uniqueID":"beta","phy":[{"type":"tcp",)"
            R"("ipAddress":"127.0.0.3","port":15000,"server":true}],"enabled":true,)"
            R"("connected":false,"showInUI":true}])");
}

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

  update(site.betaEntry(R"(,"enabled":false)"));
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.beta));
  EXPECT_TRUE(lists(R"("enabled":false,"connected":false)"));
  update(site.betaEntry(R"(,"enabled":true)"));
  EXPECT_TRUE(BridgeSite::becomesLinked(*site.beta));

  update(routerEntry("own", "127.0.0.1", kPort));
  EXPECT_FALSE(lists("\"own\""));
}

TEST_F(DeviceRequestTest, DeletedRoutersAreAnnouncedAndTheDescriptionIsOnDisk) {
  startComplete();
  EXPECT_FALSE(fs::exists(stateFile()));
  EXPECT_TRUE(isAnsweredOK("DEL", R"("objectBase":"connectionPoint","objectName":["beta","x"])"));
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.beta));
  EXPECT_EQ(site.controller->countPassed([](const PassedMessage& one) {
    return one.kind == MessageKind::NOT && one.path == "device" &&
           one.body().find(R"("paramDelete":{"connectionPoint":[{"type":"valtor","name":"beta")") !=
               std::string::npos;
  }),
            1U);
  EXPECT_FALSE(lists("\"beta\""));
  const OwnedJSON saved = parseJSON(fileContent(stateFile()));
  const std::string description =
      printJSON(cJSON_GetObjectItem(saved.get(), "connectionPointManager"), false);
  EXPECT_EQ(description,
            R"({"type":"valtor","phy":[{"type":"tcp","ipAddress":"192.168.1.2","port":15000,)"
            R"("server":true}]})");
  EXPECT_EQ(paramOf("connectionPointManager"), "[" + description + "]");
  EXPECT_FALSE(fs::exists(stateFile() + ".new") || fs::exists(stateFile() + ".old"));
}

TEST_F(DeviceRequestTest, SetReloadsTheListAndSavesTheDescription) {
  startComplete();
  const auto gamma = site.start("127.0.0.4");
  EXPECT_TRUE(isAnsweredOK(
      "SET", pointList(site.betaEntry() + "," + routerEntry("gamma", "127.0.0.4", kPort))));
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.alpha));
  EXPECT_TRUE(BridgeSite::becomesLinked(*gamma));
  EXPECT_FALSE(lists("\"alpha\""));
  EXPECT_EQ(site.beta->countEvents("ACCEPT"), 1U);  // what stays the same stays linked
  EXPECT_TRUE(commandReaches(*site.beta));
  EXPECT_TRUE(fs::exists(stateFile()));
}

TEST_F(DeviceRequestTest, IncomingClientsAreListedOnTheBusAndOnDisk) {
  const std::string incoming =
      R"({"type":"valtor","name":"in","uniqueID":"in","phy":[{"type":"tcp",)"
      R"("ipAddress":"127.0.0.9","port":15000,"server":false}]})";
  writeActiveDatabase(site.alphaEntry() + "," + incoming);
  startDaemon();
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.alpha));
  const std::string onBus = paramOf("serverConnectionPoint");
  EXPECT_NE(onBus.find(R"("uniqueID":"in")"), std::string::npos);
  EXPECT_FALSE(lists(R"("uniqueID":"in")"));
  EXPECT_EQ(fileContent(incomingFile()),
            R"({"serverConnectionPoint":)" + onBus + R"(,"type":"valtor"})");
  EXPECT_EQ(fs::status(paths().incomingClientDirectory).permissions(), fs::perms(0777));
  EXPECT_TRUE(isAnsweredOK("SET", pointList(site.betaEntry())));
  EXPECT_EQ(paramOf("serverConnectionPoint"), onBus);  // a reload is not about them
}

}  // namespace
}  // namespace valtor::test
