#include <gtest/gtest.h>
#include <syslog.h>
#include <thread>

#include "ConnectionFakes.h"
#include "connections/ConnectionPoint.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"

namespace valtor::test {
namespace {

class ConnectionPointTest : public testing::Test {
 protected:
  std::unique_ptr<FakeConnectionPoint> load(const std::string& description) {
    auto made = std::make_unique<FakeConnectionPoint>(scene.client, manager);
    result = made->loadFromJSON(parseJSON(description).get());
    return made;
  }
  std::string rendered(const ConnectionPoint& connectionPoint) {
    return printJSON(connectionPoint.toJSON().get(), false);
  }

  Scene scene;
  FakeManager manager{scene.client};
  int result = 0;
};

TEST_F(ConnectionPointTest, LeavesOutAnInvalidPhy) {
  const LogCapture log;
  const auto cp = load(R"({"type":"t","name":"n","uniqueID":"u",
                           "phy":[{"type":"tbus"},7,{"type":"serial","port":"/dev/x"}]})");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(log.count(LOG_WARNING, "ConnectionPointDetails::loadFromJSON - invalid phy details.\n"),
            2);
  EXPECT_NE(rendered(*cp).find(R"("phy":[{"type":"serial")"), std::string::npos);
}

TEST_F(ConnectionPointTest, RefusesADescriptionThatLacksSomethingAndSaysWhat) {
  const std::string phy = R"("phy":[{"type":"udp"}])";
  const struct {
    std::string description;
    std::string complaint;
  } cases[] = {
      {R"({"name":"n"})", "type not specified."},
      {R"({"type":5,"name":"n"})", "type not specified."},
      {R"([])", "type not specified."},
      {R"({"type":"t","name":"n","uniqueID":"u"})", "phy not specified."},
      {R"({"type":"t","phy":{"a":{"type":"udp"}}})", "no valid phy found."},
      {R"({"type":"t","phy":"udp"})", "no valid phy found."},
      {R"({"type":"t","phy":null})", "no valid phy found."},
      {R"({"type":"t","phy":[]})", "no valid phy found."},
      {R"({"type":"t",)" + phy + "}", "name not specified."},
      {R"({"type":"t","name":[],)" + phy + "}", "name not specified."},
      {R"({"type":"t","name":"n",)" + phy + "}", "uniqueID not specified."},
      {R"({"type":"t","name":"n","uniqueID":{},)" + phy + "}", "uniqueID not specified."},
  };
  for (const auto& each : cases) {
    const LogCapture log;
    load(each.description);
    EXPECT_EQ(result, -1) << each.description;
    EXPECT_EQ(
        log.count(LOG_WARNING, "ConnectionPointDetails::loadFromJSON - " + each.complaint + "\n"),
        1)
        << each.description;
  }
}

TEST_F(ConnectionPointTest, OnlyTrueEnables) {
  const struct {
    std::string member;
    bool enabled;
  } cases[] = {{"", true},
               {R"(,"enabled":true)", true},
               {R"(,"enabled":1)", false},
               {R"(,"enabled":"true")", false},
               {R"(,"enabled":null)", false},
               {R"(,"ENABLED":false)", false}};  // upper and lower case are the same
  for (const auto& each : cases) {
    EXPECT_EQ(load(clientDescription("A", 1, each.member))->isEnabled(), each.enabled)
        << each.member;
  }
}

TEST_F(ConnectionPointTest, TheFirstPhyTellsClientsOfOurServersApart) {
  const struct {
    std::string phys;
    bool server;
    bool tcp;
  } cases[] = {{R"([{"type":"tcp","server":false}])", true, true},
               {R"([{"type":"tcp"}])", true, true},
               {R"([{"type":"udp"}])", true, false},
               {R"([{"type":"tcp","server":true}])", false, true},
               {R"([{"type":"serial"},{"type":"tcp","server":false}])", false, false}};
  for (const auto& each : cases) {
    const auto cp = load(R"({"type":"t","name":"n","uniqueID":"u","phy":)" + each.phys + "}");
    EXPECT_EQ(cp->isServerConnectionPoint(), each.server) << each.phys;
    EXPECT_EQ(cp->firstTCPPhy().has_value(), each.tcp) << each.phys;
    cp->notifyParam(false);
    const std::string key = each.server ? "serverConnectionPoint" : "connectionPoint";
    EXPECT_EQ(scene.client.bodies().back(),
              R"({"param":{")" + key + R"(":[)" + rendered(*cp) + "]}}");
  }
  const auto cp = load(clientDescription("A"));
  cp->clearPhys();
  EXPECT_FALSE(cp->isServerConnectionPoint());
}

TEST_F(ConnectionPointTest, AnnouncesEachChangeOfItsStateOnce) {
  const auto cp = load(clientDescription("A"));
  const LogCapture log;
  cp->setConnected(false);
  cp->setConnected(true);
  cp->setConnected(true);
  cp->disconnect();
  const auto sent = scene.client.sent();
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].kind, MessageKind::NOT);
  EXPECT_EQ(sent[0].path, "device");
  EXPECT_EQ(sent[0].body,
            R"({"param":{"connectionPoint":[{"type":"valtor","name":"name of A","uniqueID":"A",)"
            R"("phy":[{"type":"tcp","ipAddress":"10.1.2.3","port":5000,"server":true}],)"
            R"("enabled":true,"connected":true,"showInUI":true}]}})");
  EXPECT_NE(sent[1].body.find(R"("connected":false)"), std::string::npos);
  EXPECT_EQ(log.count(LOG_DEBUG, "virtual void ConnectionPoint::setConnected(bool), A = 1\n"), 2);
}

TEST_F(ConnectionPointTest, AnUpdateWithOtherPhysDisconnectsWithoutTheDescriptionLock) {
  const auto cp = load(clientDescription("A"));
  cp->setConnected(true);
  // What a disconnect waits for may itself ask for the description.
  cp->onDisconnect = [&cp] {
    std::thread([&cp] { EXPECT_EQ(cp->firstTCPPhy()->getPort(), 5000); }).join();
  };
  cp->update(*load(clientDescription("A", 5001)));
  EXPECT_EQ(cp->disconnects, 1);
  EXPECT_FALSE(cp->isConnected());
  EXPECT_EQ(cp->firstTCPPhy()->getPort(), 5001);
}

class ReportRaceTest : public ConnectionPointTest {
 protected:
  ReportRaceTest() {
    cp->addDeviceConnection(cp->createDeviceConnection({"A", "d", "f", "valtor", "n"}), false);
    scene.client.clear();
  }
  // What the bus heard last must be how it is, for the connection point and for its device.
  void expectTrueLastWords() {
    std::string lastSelf;
    std::string lastDevice;
    for (const std::string& body : scene.client.bodies()) {
      (body.find("deviceConnection") != std::string::npos ? lastDevice : lastSelf) = body;
    }
    const std::string state = cp->isConnected() ? "true" : "false";
    ASSERT_NE(lastSelf.find("\"connected\":" + state), std::string::npos) << lastSelf;
    ASSERT_NE(lastDevice.find("\"online\":" + state), std::string::npos) << lastDevice;
  }

  std::unique_ptr<FakeConnectionPoint> cp = load(clientDescription("A"));
};

TEST_F(ReportRaceTest, AReportDuringAnotherOnesRenderingHasTheLastWord) {
  for (int round = 0; round < kRaceRounds / 8; ++round) {
    const SlowRendering slow(*cp);
    std::thread up([&] { cp->setConnected(true); });
    slow.waitForStart();
    cp->setConnected(false);
    up.join();
    expectTrueLastWords();
  }
}

TEST_F(ReportRaceTest, TheLastWordOnTheBusIsTrueWhenThreadsReportAtOnce) {
  const auto report = [this](bool state) {
    for (int i = 0; i < 10; ++i) {
      cp->setConnected(state);
    }
  };
  for (int round = 0; round < kRaceRounds; ++round) {
    scene.client.clear();
    cp->setConnected(round % 2 == 0);
    std::vector<std::thread> threads;
    for (const bool state : {true, false, true, false}) {
      threads.emplace_back(report, state);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    expectTrueLastWords();
  }
}

// --- Device connections --------------------------------------------------------------------------

class DeviceConnectionTest : public ConnectionPointTest {
 protected:
  std::shared_ptr<FakeDevice> addDevice(const std::string& uniqueID, bool notify = false) {
    auto device = std::make_shared<FakeDevice>(
        DeviceConnectionDetails("A", uniqueID, "family", "valtor", "name of " + uniqueID));
    cp->addDeviceConnection(device, notify);
    return device;
  }

  std::unique_ptr<FakeConnectionPoint> cp = load(clientDescription("A"));
};

TEST_F(DeviceConnectionTest, ANewDeviceIsAttachedSubscribedSeenAndAnnouncedWhenAsked) {
  const auto quiet = addDevice("d1");
  EXPECT_TRUE(scene.client.sent().empty());
  EXPECT_TRUE(quiet->isAttached());
  EXPECT_TRUE(quiet->isOnline());
  addDevice("d2", true);
  EXPECT_EQ(scene.client.bodies(),
            std::vector<std::string>{
                R"({"param":{"deviceConnection":[{"uniqueID":"d2","online":true}]}})"});
  EXPECT_EQ(scene.client.subscriptions(), (std::vector<std::string>{"device.d1", "device.d2"}));
  cp->addDeviceConnection(nullptr, true);
  EXPECT_EQ(scene.client.sent().size(), 1U);
}

TEST_F(DeviceConnectionTest, DevicesFollowTheConnectionInTheOrderOfTheirIDs) {
  addDevice("d2");
  addDevice("d1");
  cp->setConnected(true);
  scene.client.clear();
  const LogCapture log;
  cp->setConnected(false);
  const auto bodies = scene.client.bodies();
  ASSERT_EQ(bodies.size(), 2U);
  EXPECT_EQ(bodies[0], R"({"param":{"deviceConnection":[{"uniqueID":"d1","online":false},)"
                       R"({"uniqueID":"d2","online":false}]}})");
  EXPECT_NE(bodies[1].find(R"("connectionPoint")"), std::string::npos);
  EXPECT_EQ(log.count(LOG_INFO, "Device name of d1(d1) is offline.\n"), 1);
  EXPECT_EQ(log.countContaining("is offline."), 2);
  EXPECT_EQ(printJSON(cp->deviceConnectionsToJSON().get(), false),
            R"([{"uniqueID":"d1","online":false},{"uniqueID":"d2","online":false}])");
}

TEST_F(DeviceConnectionTest, AnUpdateAnnouncesOnlyADeviceThatWasOffline) {
  const auto device = addDevice("d1");
  const DeviceConnectionDetails renamed("A", "d1", "family", "valtor", "renamed");
  device->noteMissedPoll();
  EXPECT_FALSE(cp->updateDeviceConnection(renamed));
  EXPECT_EQ(device->getMissedPolls(), 0U);
  EXPECT_EQ(device->getName(), "renamed");
  EXPECT_TRUE(scene.client.sent().empty());
  device->setOnline(false);
  EXPECT_TRUE(cp->updateDeviceConnection(renamed));
  EXPECT_EQ(scene.client.bodies(),
            std::vector<std::string>{
                R"({"param":{"deviceConnection":[{"uniqueID":"d1","online":true}]}})"});
  EXPECT_FALSE(cp->updateDeviceConnection({"A", "unknown", "", "valtor", "x"}));
}

TEST_F(DeviceConnectionTest, RemovingAllReportsThemInOneNotification) {
  addDevice("d1");
  addDevice("d2");
  const LogCapture log;
  cp->removeAllDeviceConnections();
  cp->removeAllDeviceConnections();
  EXPECT_EQ(scene.client.bodies(),
            std::vector<std::string>{R"({"paramDelete":{"deviceConnection":[)"
                                     R"({"uniqueID":"d1","online":false,"gone":true},)"
                                     R"({"uniqueID":"d2","online":false,"gone":true}]}})"});
  EXPECT_EQ(log.countContaining("is offline."), 2);
  EXPECT_FALSE(cp->hasDeviceConnection("d1"));
}

// Every device that was added is either still there or was reported as gone.
TEST_F(DeviceConnectionTest, RemovingAllDestroysOnlyWhatItReported) {
  for (int round = 0; round < kRaceRounds; ++round) {
    scene.client.clear();
    std::thread adding([&] { addDevice("late"); });
    cp->removeAllDeviceConnections();
    adding.join();
    const bool reported = !scene.client.sent().empty();
    ASSERT_NE(cp->hasDeviceConnection("late"), reported);
    cp->removeAllDeviceConnections();
  }
}

}  // namespace
}  // namespace valtor::test
