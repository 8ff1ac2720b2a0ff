#include <algorithm>

#include "connections/ConnectionFakes.h"

namespace valtor::test {
namespace {

class DeviceRequestsTest : public ConnectionsTest {
 protected:
  // An answer to a "GET" and one without a value.
  static std::string answer(const std::string& name, const std::string& value,
                            const std::string& more = "") {
    return R"(["RSP", "device", 0, 490, 0])"
           "\n"
           R"({"requestCommand":"GET","statusCode":200,"statusMsg":"OK","param":{")" +
           name + "\":" + value + "}" + more + "}";
  }
  static std::string confirmation(const std::string& kind) {
    return "[\"RSP\", \"device\", 0, 490, 0]\n{\"requestCommand\":\"" + kind +
           R"(","statusCode":200,"statusMsg":"OK","objectName":"connectionPoint"})";
  }
  static std::string points(const std::string& entries) {
    return R"({"param":{"connectionPoint":[)" + entries + "]}}";
  }
  static std::string device(const std::string& uniqueID, const std::string& connectionPoint,
                            const std::string& type = "valtor") {
    return R"({"type":")" + type + R"(","name":"camera","uniqueID":")" + uniqueID +
           R"(","connectionPoint":")" + connectionPoint + R"("})";
  }
  static std::string repeated(const std::string& element, int times) {
    std::string elements = element;
    while (--times > 0) {
      elements += "," + element;
    }
    return elements;
  }
  std::string object(const std::string& uniqueID) { return rendered(*manager.get(uniqueID)); }
};

TEST_F(DeviceRequestsTest, GetAnswersEachKnownNameInOrderAndDevicesAndServersLast) {
  const std::string names = R"({"objectName":["deviceConnection","serverConnectionPoint",)"
                            R"("connectionPoint",5,"foo","connectionPointManager"]})";
  const std::string interface = R"(,"interface":"valtor.ConnectionPointManager")";
  manager.add(clientDescription("B"));
  manager.add(clientDescription("A"));
  const std::string clients =
      answer("connectionPoint", "[" + object("A") + "," + object("B") + "]");
  EXPECT_TRUE(manager.handle("GET", names));
  EXPECT_EQ(manager.answers,
            (Payloads{clients, answer("connectionPointManager", R"([{"type":"valtor","phy":[]}])"),
                      answer("deviceConnection", "[]", interface)}));
  manager.add(serverDescription("in"))->addDevice("d1");
  const std::string servers = "[" + object("in") + "]";
  EXPECT_TRUE(manager.handle("GET", names));
  EXPECT_EQ(
      manager.answers,
      (Payloads{clients,
                answer("connectionPointManager",
                       R"([{"type":"valtor","phy":[],"serverConnectionPoint":)" + servers + "}]"),
                answer("deviceConnection", R"([{"uniqueID":"d1","online":true,"gone":false}])",
                       interface),
                answer("serverConnectionPoint", servers)}));
}

TEST_F(DeviceRequestsTest, WhatNamesNothingIsNotTakenAndChangesNothing) {
  const std::pair<const char*, const char*> cases[] = {
      {"device", R"({"objectName":["foo","serverConnectionPoint"]})"},
      {"device", R"({"objectName":"connectionPoint"})"},
      {"device", R"({"objectName":{"a":"connectionPoint"}})"},
      {"device", R"({"param":{}})"},
      {"device", R"({"param":"connectionPoint"})"},
      {"device", R"({"param":{"connectionPoint":{}}})"},
      {"device", R"({"connectionPoint":[]})"},
      {"device", R"({"deviceConnection":{}})"},
      {"device", R"({"deviceConnection":[7,{"type":"valtor"}]})"},
      {"device", "7"},
      {"device.", R"({"objectName":["connectionPoint"],"param":{"connectionPoint":[]}})"},
      {"device.d2", R"({"objectName":["connectionPoint"],"param":{"connectionPoint":[]}})"},
  };
  manager.add(clientDescription("A"))->addDevice("d1");
  for (const auto& [path, body] : cases) {
    for (const char* kind : {"GET", "SET", "UPDATE"}) {
      SCOPED_TRACE(std::string(kind) + " " + path + " " + body);
      EXPECT_FALSE(manager.handle(kind, body, path));
      EXPECT_EQ(manager.answers, Payloads());
      EXPECT_FALSE(manager.wasSaved());
      EXPECT_EQ(manager.ids(), "A:d1");
    }
  }
}

TEST_F(DeviceRequestsTest, ARequestThatRepeatsANameIsAnsweredWithinBounds) {
  std::string names = R"("connectionPoint")";
  for (int i = 0; i < 100000; ++i) {
    names += R"(,"deviceConnection")";
  }
  EXPECT_TRUE(manager.handle("GET", R"({"objectName":[)" + names + "]}"));
  EXPECT_EQ(manager.answers.size(), 1000U);
  EXPECT_EQ(log.countContaining("what follows its answer 1000 is ignored"), 1);
  manager.add(clientDescription("A"))->setName(std::string(3000000, 'n'));
  EXPECT_TRUE(manager.handle("GET", R"({"objectName":["connectionPoint",)" + names + "]}"));
  EXPECT_TRUE(
      manager.handle("GET", R"({"objectName":[)" + repeated(R"("connectionPoint")", 9) + "]}"));
  EXPECT_EQ(manager.answers.size(), 7U);
}

// One frame holds hundreds of thousands of elements.
TEST_F(DeviceRequestsTest, WhateverARequestListsIsHandledAndLoggedWithinBounds) {
  const auto consoleLines = [this] {
    const std::string text = console.text();
    return std::count(text.begin(), text.end(), '\n');
  };
  const auto numbered = [](int count, const std::string& more) {
    std::string entries = clientDescription("0");
    for (int i = 1; i < count; ++i) {
      entries += "," + clientDescription(std::to_string(i), 5000, more);
    }
    return entries;
  };
  const std::string faulty =
      R"({"type":"valtor","phy":[)" + repeated(R"({"type":"udp"})", 17) + "]}";
  const struct {
    const char* kind;
    std::string body;
    std::string line;  // written once
  } cases[] = {
      {"SET", points(repeated(clientDescription("A"), 10001) + "," + clientDescription("keep")),
       "2 ConnectionPoints refused, there is room for 10000."},
      {"UPDATE", points(numbered(10003, "")),
       "5 ConnectionPoints refused, there is room for 10000."},
      {"UPDATE", points(numbered(10003, R"(,"enabled":false)")),
       "5 ConnectionPoints refused, there is room for 10000."},
      {"UPDATE", points(repeated(faulty, 500)),
       "400 more lines about the elements of one request are left out."},
      {"SET",
       R"({"param":{"connectionPointManager":{},"tcpServer":[)" +
           repeated(R"({"enabled":true,"port":1,"connectionLimit":4,"numConnections":0})", 1003) +
           "]}}",
       "3 TCP servers at the end of a list are ignored, 1000 may be stored."},
      {"DEL",
       R"({"objectBase":"deviceConnection","objectName":[)" + repeated(R"("d")", 1000) + "]}",
       "deviceConnection d REMOVED from connectionPoint A"},
  };
  manager.add(clientDescription("keep"));
  manager.add(clientDescription("A"))->addDevice("d");
  for (const auto& one : cases) {
    SCOPED_TRACE(one.line);
    log.clear();
    const auto before = consoleLines();
    manager.handle(one.kind, one.body);
    const std::vector<LogLine> lines = log.lines();
    const auto logged = std::count_if(
        lines.begin(), lines.end(), [](const LogLine& line) { return line.priority != LOG_DEBUG; });
    EXPECT_EQ(log.countContaining(one.line), 1);
    EXPECT_LE(logged + consoleLines() - before, 1000);
  }
  ASSERT_NE(manager.get("keep"), nullptr) << "it was listed";
  EXPECT_EQ(manager.created, 2 + 10000 + 9998 + 9998 + 500) << "without room nothing is loaded";
  EXPECT_EQ(manager.get("A")->deviceSearches, 1);
  EXPECT_EQ(manager.get("keep")->deviceSearches, 0) << "it has no device";
}

TEST_F(DeviceRequestsTest, SetSweepsWhatItNoLongerListsAndSaves) {
  for (const char* id : {"A", "B", "keep"}) {
    manager.add(clientDescription(id));
  }
  manager.get("keep")->setDeletable(false);
  manager.add(serverDescription("in"));
  const std::weak_ptr<ConnectionPoint> swept = manager.get("B");
  const std::string description = object("B");
  EXPECT_TRUE(manager.handle(
      "SET", points(clientDescription("A") + "," + clientDescription("C") + "," +
                    clientDescription("C", 5002) + R"(,5,{"type":"x"},{"type":"valtor"})")));
  EXPECT_EQ(manager.answers, Payloads());
  EXPECT_TRUE(manager.wasSaved());
  EXPECT_EQ(manager.ids(), "A C in keep");
  EXPECT_EQ(manager.get("C")->firstTCPPhy()->getPort(), 5002) << "the second one is an update";
  EXPECT_TRUE(swept.expired());
  EXPECT_FALSE(manager.get("A")->isMarkedForDeletion());
  EXPECT_TRUE(console.contains(
      "virtual int AbstractConnectionPointManager::loadFromJSON(cJSON*) erasing connectionPoint: "
      "B\n"));
  EXPECT_EQ(log.count(LOG_INFO,
                      "AbstractConnectionPointManager removeConnectionPoint B, "
                      "connections.size=5\n"),
            1);
  EXPECT_EQ(bus.payloads(), Payloads{notification("paramDelete", "connectionPoint", description)});
}

TEST_F(DeviceRequestsTest, SetWithoutAListKeepsTheSetAndTheCaseOfNamesDoesNotCount) {
  manager.add(clientDescription("A"));
  EXPECT_TRUE(manager.handle("SET", R"({"param":{"connectionPointManager":{}}})"));
  EXPECT_TRUE(manager.wasSaved());
  EXPECT_EQ(manager.ids(), "A");
  EXPECT_TRUE(manager.handle("SET", R"({"PARAM":{"CONNECTIONPOINT":[]}})"));
  EXPECT_EQ(manager.ids(), "");
}

TEST_F(DeviceRequestsTest, UpdateMergesButNeitherSweepsNorSavesNorAnswers) {
  manager.add(clientDescription("A"));
  EXPECT_FALSE(manager.handle(
      "UPDATE",
      points(clientDescription("B") + "," + clientDescription("A", 5001) + R"(,{"type":"x"},7)")));
  EXPECT_EQ(manager.answers, Payloads());
  EXPECT_FALSE(manager.wasSaved());
  EXPECT_EQ(manager.ids(), "A B");
  EXPECT_EQ(manager.get("A")->firstTCPPhy()->getPort(), 5001);
}

TEST_F(DeviceRequestsTest, DeviceConnectionsAreMadeQuietlyBySetAndAnnouncedByUpdate) {
  manager.add(clientDescription("A"));
  EXPECT_TRUE(manager.handle("SET", R"({"deviceConnection":[)" + device("d1", "A") + "," +
                                        device("d2", "unknown") + "," + device("d3", "A", "x") +
                                        "]}"));
  EXPECT_EQ(manager.answers, Payloads{confirmation("SET")});
  EXPECT_TRUE(manager.wasSaved());
  EXPECT_EQ(manager.ids(), "A:d1");
  EXPECT_TRUE(bus.payloads().empty());
  EXPECT_TRUE(manager.handle(
      "UPDATE", R"({"deviceConnection":[)" + device("d1", "A") + "," + device("d4", "A") + "]}"));
  EXPECT_EQ(manager.answers, Payloads{confirmation("UPDATE")});
  EXPECT_EQ(bus.payloads(), Payloads{notification("param", "deviceConnection",
                                                  R"({"uniqueID":"d4","online":true})")});
  EXPECT_TRUE(manager.wasSaved());
}

TEST_F(DeviceRequestsTest, ParametersGoToTheDeviceInThePath) {
  const auto d1 = manager.add(clientDescription("A"))->addDevice("d1");
  const std::string body = R"({"objectName":["connectionPoint"],"param":{"gain":"3"}})";
  EXPECT_TRUE(manager.handle("SET", body, "device.d1"));
  EXPECT_TRUE(manager.handle("SET", body, "device.d1.more"));
  EXPECT_FALSE(manager.handle("UPDATE", body, "device.d1"));
  EXPECT_FALSE(manager.handle("GET", body, "device.d1"));
  EXPECT_EQ(d1->paramLists, 2);
  EXPECT_FALSE(manager.wasSaved());
}

// --- DEL -----------------------------------------------------------------------------------------

TEST_F(DeviceRequestsTest, DelDeletesByTheModeThatHoldsForEachName) {
  const std::string all = "A:d1:d2 B a.b keep:d1";
  const std::pair<const char*, std::string> cases[] = {
      {R"({"objectBase":"connectionPoint","objectName":["A","B"]})", "a.b keep:d1"},
      {R"({"objectName":["connectionPoint.A","B"]})", "a.b keep:d1"},
      {R"({"objectName":["A","connectionPoint.B"]})", "A:d1:d2 a.b keep:d1"},
      {R"({"objectBase":"connectionPoint","objectName":["keep","unknown",7]})", all},
      {R"({"objectBase":"connectionPoint","objectName":["a.b"]})", "A:d1:d2 B keep:d1"},
      {R"({"objectName":["connectionPoint.a.b"]})", "A:d1:d2 B keep:d1"},
      {R"({"objectBase":"deviceConnection","objectName":["d1","A"]})", "A:d2 B a.b keep"},
      {R"({"objectName":["deviceConnection.d2","d1"]})", "A B a.b keep"},
      {R"({"objectBase":"connectionPoint","objectName":["deviceConnection.B","d1"]})",
       "A:d2 a.b keep"},
      {R"({"objectBase":"deviceConnection","objectName":["connectionPoint.B","d1"]})",
       "A:d1:d2 a.b keep:d1"},
      {R"({"objectBase":5,"objectName":["A","d1"]})", all},
      {R"({"objectBase":"route","objectName":["connectionPoint.A"]})", all},
      {R"({"objectBase":"connectionPoint","objectName":"A"})", all},
      {R"({"objectBase":"connectionPoint","objectName":["",".","connectionPoint."]})", all},
  };
  for (const auto& [body, left] : cases) {
    manager.handle("SET", points(""));
    for (const char* id : {"A", "B", "a.b", "keep"}) {
      manager.add(clientDescription(id))->setDeletable(id != std::string("keep"));
    }
    manager.get("A")->addDevice("d1");
    manager.get("A")->addDevice("d2");
    manager.get("keep")->addDevice("d1");
    manager.wasSaved();
    SCOPED_TRACE(body);
    EXPECT_EQ(manager.handle("DEL", body), left != all);
    EXPECT_EQ(manager.answers, Payloads());
    EXPECT_EQ(manager.wasSaved(), left != all);
    EXPECT_EQ(manager.ids(), left);
  }
  EXPECT_EQ(log.count(LOG_INFO, "deviceConnection d1 REMOVED from connectionPoint keep\n"), 3);
}

TEST_F(DeviceRequestsTest, ADeletedConnectionPointAndItsDevicesAreOfflineAnnouncedAndDestroyed) {
  const std::weak_ptr<ConnectionPoint> cp = manager.add(clientDescription("A"));
  const std::string down = object("A");
  manager.get("A")->addDevice("d2");
  manager.get("A")->addDevice("d1");
  manager.get("A")->setConnected(true);
  bus.clear();
  EXPECT_TRUE(manager.handle("DEL", R"({"objectName":["connectionPoint.A"]})"));
  EXPECT_TRUE(cp.expired());
  EXPECT_EQ(bus.payloads(),
            (Payloads{notification("param", "deviceConnection",
                                   R"({"uniqueID":"d1","online":false},)"
                                   R"({"uniqueID":"d2","online":false})"),
                      notification("param", "connectionPoint", down),
                      notification("paramDelete", "deviceConnection",
                                   R"({"uniqueID":"d1","online":false,"gone":true},)"
                                   R"({"uniqueID":"d2","online":false,"gone":true})"),
                      notification("paramDelete", "connectionPoint", down)}));
  EXPECT_EQ(log.count(LOG_INFO, "Device name of d1(d1) is offline.\n"), 2);
  EXPECT_EQ(log.countContaining("is offline."), 4);
}

}  // namespace
}  // namespace valtor::test
