#include <gtest/gtest.h>
#include <syslog.h>

#include "ConnectionFakes.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"

namespace valtor::test {
namespace {

class DeviceRequestsTest : public testing::Test {
 protected:
  bool get(const std::string& body, const std::string& path = "device") {
    return manager.handle(MessageKind::GET, path, body);
  }
  bool set(const std::string& body, const std::string& path = "device") {
    return manager.handle(MessageKind::SET, path, body);
  }
  bool update(const std::string& body, const std::string& path = "device") {
    return manager.handle(MessageKind::UPDATE, path, body);
  }
  bool del(const std::string& body) { return manager.handle(MessageKind::DEL, "device", body); }
  std::string object(const std::string& uniqueID) {
    return printJSON(manager.get(uniqueID)->toJSON().get(), false);
  }
  void addDevice(const std::string& uniqueID, const std::string& connectionPoint) {
    const auto cp = manager.get(connectionPoint);
    cp->addDeviceConnection(
        cp->createDeviceConnection({connectionPoint, uniqueID, "f", "valtor", "n"}), false);
  }
  // An answer to a "GET", its value under the name.
  static std::string ok(const std::string& name, const std::string& value) {
    return R"({"requestCommand":"GET","statusCode":200,"statusMsg":"OK","param":{")" + name +
           "\":" + value + "}}\n";
  }

  Scene scene;
  FakeManager manager{scene.client};
};

TEST_F(DeviceRequestsTest, GetAnswersEachKnownNameInOrder) {
  manager.add(clientDescription("B"));
  manager.add(clientDescription("A"));
  EXPECT_TRUE(get(R"({"objectName":["connectionPoint",5,"connectionPointManager","foo"]})"));
  EXPECT_EQ(manager.answers, ok("connectionPoint", "[" + object("A") + "," + object("B") + "]") +
                                 ok("connectionPointManager", R"([{"type":"valtor","phy":[]}])"));
  manager.add(serverDescription("in"));
  EXPECT_TRUE(get(R"({"objectName":["connectionPointManager"]})"));
  EXPECT_EQ(manager.answers,
            ok("connectionPointManager",
               R"([{"type":"valtor","phy":[],"serverConnectionPoint":[)" + object("in") + "]}]"));
}

TEST_F(DeviceRequestsTest, GetOfServersAndDevicesFollowsTheOtherNames) {
  const std::string names =
      R"({"objectName":["deviceConnection","serverConnectionPoint","connectionPoint"]})";
  EXPECT_FALSE(get(R"({"objectName":["serverConnectionPoint"]})"));
  const std::string devices =
      R"({"requestCommand":"GET","statusCode":200,"statusMsg":"OK","param":{"deviceConnection":)";
  const std::string interface = R"(},"interface":"valtor.ConnectionPointManager"})"
                                "\n";
  EXPECT_TRUE(get(names));
  EXPECT_EQ(manager.answers, ok("connectionPoint", "[]") + devices + "[]" + interface);
  manager.add(serverDescription("in"));
  addDevice("d1", "in");
  EXPECT_TRUE(get(names));
  EXPECT_EQ(manager.answers, ok("connectionPoint", "[]") + devices +
                                 R"([{"uniqueID":"d1","online":true,"gone":false}])" + interface +
                                 ok("serverConnectionPoint", "[" + object("in") + "]"));
}

TEST_F(DeviceRequestsTest, GetIsNotTakenWithoutAKnownName) {
  for (const char* body : {R"({"objectName":["foo"]})", R"({"objectName":"connectionPoint"})",
                           R"({"objectName":{"a":"connectionPoint"}})", R"({"objectName":[]})",
                           R"({})", R"([])", "7", "null"}) {
    EXPECT_FALSE(get(body)) << body;
    EXPECT_EQ(manager.answers, "");
  }
  manager.add(clientDescription("A"));
  addDevice("d1", "A");
  for (const char* path : {"device.d1", "device.", "device.connectionPoint"}) {
    EXPECT_FALSE(get(R"({"objectName":["connectionPoint"],"param":{}})", path)) << path;
  }
}

TEST_F(DeviceRequestsTest, ARequestThatRepeatsANameIsAnsweredWithinBounds) {
  std::string names = R"("connectionPoint")";
  for (int i = 0; i < 100000; ++i) {
    names += R"(,"deviceConnection")";
  }
  const LogCapture log;
  const PellInternalMessage message(MessageKind::GET, "device",
                                    parseJSON(R"({"objectName":[)" + names + "]}").release());
  ResponseList responses;
  EXPECT_TRUE(manager.handleMessage(message, responses));
  EXPECT_EQ(responses.size(), 1000U);
  EXPECT_EQ(log.countContaining("what follows its answer 1000 is ignored"), 1);
}

TEST_F(DeviceRequestsTest, SetReloadsAndSaves) {
  manager.add(clientDescription("A"));
  const ConsoleCapture quiet;
  EXPECT_TRUE(set(R"({"param":{"connectionPoint":[)" + clientDescription("B") +
                  R"(],"tcpServer":[{"enabled":true,"port":1,"connectionLimit":1,)"
                  R"("numConnections":0}]}})"));
  EXPECT_EQ(manager.answers, "");
  EXPECT_EQ(manager.ids(), "B");
  EXPECT_EQ(printJSON(parseJSON(fileContent(manager.containerFile())).get(), false),
            R"({"version":0,"connectionPointManager":{"type":"valtor","phy":[],"tcpServer":[)"
            R"({"enabled":true,"port":1,"protocol":"tcp","type":"valtor","connectionLimit":1,)"
            R"("numConnections":0}]}})");
  EXPECT_TRUE(manager.wasSaved());
  EXPECT_TRUE(set(R"({"param":{"connectionPointManager":{}}})"));
  EXPECT_TRUE(manager.wasSaved());
  EXPECT_TRUE(set(R"({"PARAM":{"CONNECTIONPOINT":[]}})")) << "the case of names does not count";
  EXPECT_EQ(manager.ids(), "");
}

TEST_F(DeviceRequestsTest, SetWithoutAnythingToSetIsNotTaken) {
  manager.add(clientDescription("A"));
  for (const char* body :
       {R"({})", R"({"param":{}})", R"({"param":[]})", R"({"param":"connectionPoint"})",
        R"({"param":{"connectionPoint":{}}})", R"({"param":{"connectionPoint":7}})",
        R"({"connectionPoint":[]})", R"({"deviceConnection":[]})", R"({"deviceConnection":{}})",
        R"({"deviceConnection":[7,{"type":"valtor"}]})", "7"}) {
    EXPECT_FALSE(set(body)) << body;
    EXPECT_FALSE(update(body)) << body;
    EXPECT_FALSE(manager.wasSaved()) << body;
    EXPECT_EQ(manager.ids(), "A") << body;
  }
}

TEST_F(DeviceRequestsTest, UpdateMergesButNeitherSweepsNorSavesNorAnswers) {
  manager.add(clientDescription("A"));
  EXPECT_FALSE(update(R"({"param":{"connectionPoint":[)" + clientDescription("B") + "," +
                      clientDescription("A", 5001) + R"(,{"type":"x"},7]}})"));
  EXPECT_EQ(manager.answers, "");
  EXPECT_FALSE(manager.wasSaved());
  EXPECT_EQ(manager.ids(), "A B");
  EXPECT_EQ(manager.get("A")->firstTCPPhy()->getPort(), 5001);
}

TEST_F(DeviceRequestsTest, DeviceConnectionsAreMadeQuietlyBySetAndAnnouncedByUpdate) {
  const auto cp = manager.add(clientDescription("A"));
  const std::string answer = R"("statusCode":200,"statusMsg":"OK","objectName":"connectionPoint"})"
                             "\n";
  EXPECT_TRUE(set(R"({"deviceConnection":[)" + deviceDescription("d1", "A") + "," +
                  deviceDescription("d2", "unknown") + R"(,{"type":"x","name":"n",)" +
                  R"("uniqueID":"d3","connectionPoint":"A"}]})"));
  EXPECT_EQ(manager.answers, R"({"requestCommand":"SET",)" + answer);
  EXPECT_TRUE(manager.wasSaved());
  EXPECT_TRUE(cp->hasDeviceConnection("d1"));
  EXPECT_FALSE(cp->hasDeviceConnection("d3"));
  EXPECT_TRUE(scene.client.sent().empty());
  EXPECT_TRUE(update(R"({"deviceConnection":[)" + deviceDescription("d1", "A") + "," +
                     deviceDescription("d4", "A") + "]}"));
  EXPECT_EQ(manager.answers, R"({"requestCommand":"UPDATE",)" + answer);
  EXPECT_EQ(scene.client.bodies(),
            std::vector<std::string>{
                R"({"param":{"deviceConnection":[{"uniqueID":"d4","online":true}]}})"});
  EXPECT_TRUE(manager.wasSaved());
}

TEST_F(DeviceRequestsTest, ParametersGoToTheDeviceInThePath) {
  manager.add(clientDescription("A"));
  addDevice("d1", "A");
  const std::string body = R"({"param":{"gain":"3"}})";
  EXPECT_TRUE(set(body, "device.d1"));
  EXPECT_TRUE(set(body, "device.d1.more"));
  EXPECT_FALSE(set(body, "device.d2"));
  EXPECT_FALSE(set(body, "device."));
  EXPECT_FALSE(update(body, "device.d1"));
  EXPECT_FALSE(set(R"({"param":{"connectionPoint":[]}})", "device.d2"));
  EXPECT_EQ(manager.ids(), "A") << "with a device in the path nothing is reloaded";
  EXPECT_FALSE(manager.wasSaved());
}

// --- DEL -----------------------------------------------------------------------------------------

TEST_F(DeviceRequestsTest, DelDeletesByTheModeThatHoldsForEachName) {
  const struct {
    const char* body;
    bool taken;
    const char* ids;      // what is left of A B a.b keep
    const char* devices;  // what is left of them at A: d1, d2
  } cases[] = {
      {R"({"objectBase":"connectionPoint","objectName":["A","B"]})", true, "a.b keep", ""},
      {R"({"objectName":["connectionPoint.A","B"]})", true, "a.b keep", ""},
      {R"({"objectName":["A","connectionPoint.B"]})", true, "A a.b keep", "d1 d2"},
      {R"({"objectBase":"connectionPoint","objectName":["keep","unknown",7]})", false,
       "A B a.b keep", "d1 d2"},
      {R"({"objectBase":"connectionPoint","objectName":["a.b"]})", true, "A B keep", "d1 d2"},
      {R"({"objectName":["connectionPoint.a.b"]})", true, "A B keep", "d1 d2"},
      {R"({"objectBase":"deviceConnection","objectName":["d1","A"]})", true, "A B a.b keep", "d2"},
      {R"({"objectName":["deviceConnection.d2","d1"]})", true, "A B a.b keep", ""},
      {R"({"objectBase":"connectionPoint","objectName":["deviceConnection.B","d1"]})", true,
       "A a.b keep", "d2"},
      {R"({"objectBase":"deviceConnection","objectName":["connectionPoint.B","d1"]})", true,
       "A a.b keep", "d1 d2"},
      {R"({"objectBase":5,"objectName":["A","d1"]})", false, "A B a.b keep", "d1 d2"},
      {R"({"objectBase":"route","objectName":["connectionPoint.A"]})", false, "A B a.b keep",
       "d1 d2"},
      {R"({"objectBase":"connectionPoint","objectName":[]})", false, "A B a.b keep", "d1 d2"},
      {R"({"objectBase":"connectionPoint","objectName":"A"})", false, "A B a.b keep", "d1 d2"},
      {R"({"objectBase":"connectionPoint","objectName":["",".","connectionPoint."]})", false,
       "A B a.b keep", "d1 d2"},
      {R"({"objectBase":"connectionPoint"})", false, "A B a.b keep", "d1 d2"},
  };
  const ConsoleCapture quiet;
  for (const auto& each : cases) {
    EXPECT_TRUE(set(R"({"param":{"connectionPoint":[]}})"));
    for (const char* id : {"A", "B", "a.b", "keep"}) {
      manager.add(clientDescription(id));
    }
    addDevice("d1", "A");
    addDevice("d2", "A");
    manager.wasSaved();
    EXPECT_EQ(del(each.body), each.taken) << each.body;
    EXPECT_EQ(manager.answers, "") << each.body;
    EXPECT_EQ(manager.wasSaved(), each.taken) << each.body;
    EXPECT_EQ(manager.ids(), each.ids) << each.body;
    std::string devices;
    for (const char* id : {"d1", "d2"}) {
      if (const auto cp = manager.get("A"); cp && cp->hasDeviceConnection(id)) {
        devices += (devices.empty() ? "" : " ") + std::string(id);
      }
    }
    EXPECT_EQ(devices, each.devices) << each.body;
  }
}

TEST_F(DeviceRequestsTest, DelOfADeviceReachesEveryConnectionPointThatHasIt) {
  for (const char* id : {"A", "B", "C"}) {
    manager.add(clientDescription(id));
  }
  addDevice("d1", "A");
  addDevice("d1", "C");
  const LogCapture log;
  EXPECT_TRUE(del(R"({"objectBase":"deviceConnection","objectName":["d1"]})"));
  EXPECT_EQ(log.count(LOG_INFO, "deviceConnection d1 REMOVED from connectionPoint A\n"), 1);
  EXPECT_EQ(log.count(LOG_INFO, "deviceConnection d1 REMOVED from connectionPoint C\n"), 1);
  EXPECT_EQ(log.countContaining("REMOVED"), 2);
  EXPECT_EQ(scene.client.sent().size(), 2U);
}

TEST_F(DeviceRequestsTest, ADeletedConnectionPointIsDisconnectedAnnouncedAndDestroyed) {
  const std::weak_ptr<ConnectionPoint> cp = manager.add(clientDescription("A"));
  manager.get("A")->setConnected(true);
  addDevice("d1", "A");
  scene.client.clear();
  EXPECT_TRUE(del(R"({"objectName":["connectionPoint.A"]})"));
  EXPECT_TRUE(cp.expired());
  const auto bodies = scene.client.bodies();
  ASSERT_EQ(bodies.size(), 4U);
  EXPECT_EQ(bodies[0], R"({"param":{"deviceConnection":[{"uniqueID":"d1","online":false}]}})");
  EXPECT_NE(bodies[1].find(R"({"param":{"connectionPoint":[{)"), std::string::npos);
  EXPECT_NE(bodies[2].find(R"({"paramDelete":{"deviceConnection":[{)"), std::string::npos);
  EXPECT_NE(bodies[3].find(R"({"paramDelete":{"connectionPoint":[{)"), std::string::npos);
}

TEST_F(DeviceRequestsTest, AHugeIdentifierIsAnIdentifierLikeAnyOther) {
  const std::string id(1U << 20U, 'x');
  update(R"({"param":{"connectionPoint":[)" + clientDescription(id) + "]}}");
  EXPECT_NE(manager.get(id), nullptr);
  EXPECT_FALSE(set(R"({"param":{"a":"b"}})", "device." + id));
  EXPECT_TRUE(del(R"({"objectName":["connectionPoint.)" + id + "\"]}"));
  EXPECT_EQ(manager.ids(), "");
}

}  // namespace
}  // namespace valtor::test
