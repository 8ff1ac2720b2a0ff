#include "connections/ConnectionFakes.h"
#include "support/Eventually.h"

namespace valtor::test {
namespace {

class ConnectionPointTest : public ConnectionsTest {
 protected:
  std::unique_ptr<FakeConnectionPoint> load(const std::string& description) {
    auto made = std::make_unique<FakeConnectionPoint>(bus, manager);
    result = made->loadFromJSON(parseJSON(description).get());
    return made;
  }

  int result = 0;
  std::unique_ptr<FakeConnectionPoint> cp = load(clientDescription("A"));
};

TEST_F(ConnectionPointTest, RefusesADescriptionThatLacksSomethingAndSaysWhat) {
  const std::string phy = R"("phy":[{"type":"udp"}])";
  const std::pair<std::string, std::string> cases[] = {
      {R"({"name":"n"})", "type not specified"},
      {R"({"type":"t","name":"n","uniqueID":"u"})", "phy not specified"},
      {R"({"type":"t","phy":{"a":{"type":"udp"}}})", "no valid phy found"},
      {R"({"type":"t","phy":[]})", "no valid phy found"},
      {R"({"type":"t","name":[],)" + phy + "}", "name not specified"},
      {R"({"type":"t","name":"n",)" + phy + "}", "uniqueID not specified"},
  };
  for (const auto& [description, complaint] : cases) {
    log.clear();
    load(description);
    EXPECT_EQ(result, -1) << description;
    const std::string line = "ConnectionPointDetails::loadFromJSON - " + complaint + ".\n";
    EXPECT_EQ(log.count(LOG_WARNING, line), 1) << description;
  }
}

TEST_F(ConnectionPointTest, OnlyTrueEnables) {
  const std::pair<const char*, bool> cases[] = {{R"(,"enabled":true)", true},
                                                {R"(,"enabled":1)", false},
                                                {R"(,"enabled":null)", false},
                                                {"", true}};
  for (const auto& [member, enabled] : cases) {
    EXPECT_EQ(load(clientDescription("A", 1, member))->isEnabled(), enabled) << member;
  }
}

TEST_F(ConnectionPointTest, TheFirstValidPhyTellsClientsOfOurServersApart) {
  const struct {
    std::string phys;
    bool server;
    bool tcp;
  } cases[] = {{R"({"type":"tcp"})", true, true},
               {R"({"type":"udp"})", true, false},
               {R"({"type":"tcp","server":true})", false, true},
               {R"({"type":"tbus"},7,{"type":"serial"},{"type":"tcp"})", false, false}};
  for (const auto& one : cases) {
    const auto loaded = load(R"({"type":"t","name":"n","uniqueID":"u","phy":[)" + one.phys + "]}");
    EXPECT_EQ(loaded->isServerConnectionPoint(), one.server) << one.phys;
    EXPECT_EQ(loaded->firstTCPPhy().has_value(), one.tcp) << one.phys;
    loaded->notifyParam(false);
    EXPECT_EQ(bus.payloads().back(),
              notification("param", one.server ? "serverConnectionPoint" : "connectionPoint",
                           rendered(*loaded)));
  }
  EXPECT_EQ(log.count(LOG_WARNING, "ConnectionPointDetails::loadFromJSON - invalid phy details.\n"),
            2);
  cp->clearPhys();
  EXPECT_FALSE(cp->isServerConnectionPoint());
}

TEST_F(ConnectionPointTest, AnnouncesEachChangeOfItsStateOnce) {
  cp->setConnected(false);
  cp->setConnected(true);
  cp->setConnected(true);
  cp->disconnect();
  const auto announcement = [](const std::string& connected) {
    return notification(
        "param", "connectionPoint",
        R"({"type":"valtor","name":"name of A","uniqueID":"A","phy":[{"type":"tcp",)"
        R"("ipAddress":"10.1.2.3","port":5000,"server":true}],"enabled":true,)"
        R"("connected":)" +
            connected + R"(,"showInUI":true})");
  };
  EXPECT_EQ(bus.payloads(), (Payloads{announcement("true"), announcement("false")}));
  EXPECT_EQ(log.count(LOG_DEBUG, "virtual void ConnectionPoint::setConnected(bool), A = 1\n"), 2);
}

TEST_F(ConnectionPointTest, AnnouncesAgainWhatCouldNotBeAnnounced) {
  cp->onRender = [] { throw std::bad_alloc(); };
  EXPECT_THROW(cp->setConnected(true), std::bad_alloc);
  EXPECT_THROW(cp->setConnected(true), std::bad_alloc);
  cp->onRender = [] {};
  cp->setConnected(true);
  cp->setConnected(true);
  EXPECT_EQ(bus.payloads().size(), 1U);
}

TEST_F(ConnectionPointTest, AnUpdateWithOtherPhysDisconnectsWithoutTheDescriptionLock) {
  cp->setConnected(true);
  // What a disconnect waits for may itself ask for the description.
  cp->onDisconnect = [this] {
    std::thread([this] { EXPECT_EQ(cp->firstTCPPhy()->getPort(), 5000); }).join();
  };
  cp->update(*load(clientDescription("A", 5001)));
  EXPECT_EQ(cp->disconnects, 1);
  EXPECT_FALSE(cp->isConnected());
  EXPECT_EQ(cp->firstTCPPhy()->getPort(), 5001);
}

// What the bus heard last must be how it is, for the connection point and for its device.
TEST_F(ConnectionPointTest, TheLastWordOnTheBusIsTrueWhenThreadsReportAtOnce) {
  cp->addDevice("d");
  // The first rendering of a round takes so long that every other thread comes to report.
  std::atomic<bool> rendering{false};
  cp->onRender = [&rendering] {
    if (!rendering.exchange(true)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  };
  const auto report = [this](bool state, int times) {
    for (int i = 0; i < times; ++i) {
      cp->setConnected(state);
    }
  };
  for (int round = 0; round < kRaceRounds; ++round) {
    // What one slow report each says too late stays the last word; many meet in more ways.
    const int times = round % 2 == 0 ? 1 : 10;
    bus.clear();
    std::vector<std::thread> threads;
    threads.emplace_back(report, true, times);
    while (!rendering) {
      std::this_thread::yield();
    }
    for (const bool state : {false, true, false}) {
      threads.emplace_back(report, state, times);
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    std::string lastSelf;
    std::string lastDevice;
    for (const std::string& payload : bus.payloads()) {
      (payload.find("deviceConnection") != std::string::npos ? lastDevice : lastSelf) = payload;
    }
    const std::string state = cp->isConnected() ? "true" : "false";
    ASSERT_NE(lastSelf.find("\"connected\":" + state), std::string::npos) << lastSelf;
    ASSERT_NE(lastDevice.find("\"online\":" + state), std::string::npos) << lastDevice;
    cp->setConnected(false);
    rendering = false;
  }
}

// --- Device connections --------------------------------------------------------------------------

class DeviceConnectionTest : public ConnectionPointTest {};

TEST_F(DeviceConnectionTest, ANewDeviceIsAttachedSubscribedSeenAndAnnouncedWhenAsked) {
  const auto quiet = cp->addDevice("d1");
  EXPECT_TRUE(bus.payloads().empty());
  EXPECT_TRUE(quiet->isAttached());
  EXPECT_TRUE(quiet->isOnline());
  cp->addDevice("d2", true);
  cp->addDeviceConnection(nullptr, true);
  EXPECT_EQ(bus.payloads(), Payloads{notification("param", "deviceConnection",
                                                  R"({"uniqueID":"d2","online":true})")});
  EXPECT_EQ(bus.subscriptions(), (Payloads{"device.d1", "device.d2"}));
}

TEST_F(DeviceConnectionTest, AnUpdateAnnouncesOnlyADeviceThatWasOffline) {
  const auto device = cp->addDevice("d1");
  const DeviceConnectionDetails renamed("A", "d1", "family", "valtor", "renamed");
  device->noteMissedPoll();
  EXPECT_FALSE(cp->updateDeviceConnection(renamed));
  EXPECT_EQ(device->getMissedPolls(), 0U);
  EXPECT_EQ(device->getName(), "renamed");
  EXPECT_TRUE(bus.payloads().empty());
  device->setOnline(false);
  EXPECT_TRUE(cp->updateDeviceConnection(renamed));
  EXPECT_EQ(bus.payloads(), Payloads{notification("param", "deviceConnection",
                                                  R"({"uniqueID":"d1","online":true})")});
  EXPECT_FALSE(cp->updateDeviceConnection({"A", "unknown", "", "valtor", "x"}));
}

TEST_F(DeviceConnectionTest, ALinkThatGoesDownDuringAnUpdateIsNotOverwritten) {
  const auto device = cp->addDevice("d1");
  cp->setConnected(true);
  bus.clear();
  std::thread report;
  device->onUpdate = [&] {
    report = std::thread([this] { cp->setConnected(false); });
    // It is to wait for the update to be over.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    eventually([&] { return !bus.payloads().empty() || std::chrono::steady_clock::now() > end; });
  };
  cp->updateDeviceConnection(device->getDetails());
  report.join();
  EXPECT_NE(bus.payloads().front().find("\"online\":false"), std::string::npos);
  EXPECT_FALSE(device->isOnline());
}

// Every device that was added is either still there or was reported as gone.
TEST_F(DeviceConnectionTest, RemovingAllDestroysOnlyWhatItReported) {
  for (int round = 0; round < kRaceRounds; ++round) {
    bus.clear();
    std::thread adding([this] { cp->addDevice("late"); });
    cp->removeAllDeviceConnections();
    adding.join();
    ASSERT_EQ(cp->hasDeviceConnection("late"), bus.payloads().empty());
    cp->removeAllDeviceConnections();
  }
}

}  // namespace
}  // namespace valtor::test
