#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "ConnectionFakes.h"
#include "connections/IncomingClientDirectory.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"

namespace valtor::test {
namespace {

class ManagerTest : public testing::Test {
 protected:
  std::shared_ptr<ConnectionPoint> merge(const std::string& description) {
    return manager.addOrUpdateConnectionPoint(
        manager.createConnectionPoint(parseJSON(description).get()));
  }
  int reload(const std::string& document) {
    return manager.loadFromJSON(parseJSON(document).get());
  }
  void addConnectedServers(int count) {
    for (int i = 0; i < count; ++i) {
      manager.add(serverDescription("S" + std::to_string(i)))->setConnected(true);
    }
  }

  Scene scene;
  FakeManager manager{scene.client};
};

TEST_F(ManagerTest, AnAddedConnectionPointReplacesOneOfItsIDOutsideTheLock) {
  std::weak_ptr<ConnectionPoint> old = manager.add(clientDescription("A"));
  manager.add(clientDescription("A", 6000));
  EXPECT_TRUE(old.expired());
  EXPECT_EQ(manager.get("A")->firstTCPPhy()->getPort(), 6000);
  EXPECT_TRUE(scene.client.sent().empty()) << "nothing is announced";
}

TEST_F(ManagerTest, TheTwentyFirstIsRefusedWhateverItIs) {
  addConnectedServers(19);
  EXPECT_NE(manager.add(clientDescription("A")), nullptr);
  manager.add(serverDescription("S19"))->setConnected(true);
  const LogCapture log;
  const ConsoleCapture console;
  EXPECT_EQ(manager.add(clientDescription("B")), nullptr);
  EXPECT_EQ(log.count(LOG_INFO, "Add ConnectionPoint B refused, Too Many.\n"), 1);
  EXPECT_TRUE(console.contains("Add ConnectionPoint B refused, Too Many.\n"));
  EXPECT_NE(merge(clientDescription("A", 7)), nullptr) << "what is there is still updated";
  manager.get("S3")->setConnected(false);
  EXPECT_NE(manager.add(clientDescription("B")), nullptr);
}

TEST_F(ManagerTest, AMergeFollowsTheDescription) {
  EXPECT_EQ(merge(clientDescription("A")), nullptr);
  const auto cp = manager.get("A");
  cp->setConnected(true);
  EXPECT_EQ(merge(clientDescription("A")), cp);
  EXPECT_TRUE(cp->isConnected());
  EXPECT_EQ(cp->connects, 1);
  merge(clientDescription("A", 5001));
  EXPECT_EQ(cp->disconnects, 1);
  EXPECT_EQ(cp->connects, 2);
  cp->setConnected(true);
  cp->addDeviceConnection(cp->createDeviceConnection({"A", "d", "f", "valtor", "n"}), false);
  merge(clientDescription("A", 5001, R"(,"enabled":false)"));
  EXPECT_FALSE(cp->isConnected());
  EXPECT_FALSE(cp->hasDeviceConnection("d"));
  EXPECT_EQ(cp->connects, 2);
}

TEST_F(ManagerTest, AReloadSweepsWhatItNoLongerLists) {
  for (const char* id : {"A", "B", "keep"}) {
    manager.add(clientDescription(id));
  }
  manager.add(serverDescription("in"));
  const std::weak_ptr<ConnectionPoint> swept = manager.get("B");
  const LogCapture log;
  const ConsoleCapture console;
  EXPECT_EQ(reload(R"({"connectionPoint":[)" + clientDescription("A") + "," +
                   clientDescription("C") + "," + clientDescription("C", 5002) +
                   R"(,5,{"type":"x"},{"type":"valtor"},{"type":4}]})"),
            0);
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
  EXPECT_NE(scene.client.bodies().back().find(R"({"paramDelete":{"connectionPoint":[{)"),
            std::string::npos);
}

TEST_F(ManagerTest, AReloadWithoutAnArrayChangesNothing) {
  manager.add(clientDescription("A"));
  EXPECT_EQ(manager.loadFromJSON(nullptr), 0);
  for (const char* document : {"{}", R"({"connectionPoint":{}})", R"({"connectionPoint":"A"})",
                               R"({"connectionPoint":null})", "[]", "7"}) {
    EXPECT_EQ(reload(document), 0);
    EXPECT_EQ(manager.ids(), "A") << document;
  }
  EXPECT_EQ(reload(R"({"connectionPoint":[]})"), 0);
  EXPECT_EQ(manager.ids(), "");
}

TEST_F(ManagerTest, ServersAreMergedByTypeAndProtocol) {
  const auto servers = [this] { return printJSON(manager.toJSON().get(), false); };
  const std::string tail = R"("connectionLimit":4,"numConnections":0})";
  const ConsoleCapture console;
  EXPECT_TRUE(manager.hasNoTCPServers());
  reload(R"({"tcpServer":[{"enabled":true,"port":1,)" + tail + R"(,{"port":2},9,"x"]})");
  EXPECT_TRUE(console.contains("Emtpy TCPServer Type Detected. Setting to valtor\n"));
  const std::string first = R"({"enabled":true,"port":1,"protocol":"tcp","type":"valtor",)" + tail;
  EXPECT_EQ(servers(), R"({"type":"valtor","phy":[],"tcpServer":[)" + first + "]}");
  reload(R"({"tcpServer":[{"enabled":false,"port":1,)" + tail + "]}");
  EXPECT_EQ(servers(), R"({"type":"valtor","phy":[],"tcpServer":[)" + first + "]}")
      << "a difference in enabled alone is none";
  reload(R"({"tcpServer":[{"enabled":false,"port":5,)" + tail +
         R"(,{"enabled":true,"port":6,"protocol":"ws",)" + tail + "]}");
  reload("{}");
  EXPECT_EQ(servers(), R"({"type":"valtor","phy":[],"tcpServer":[)"
                       R"({"enabled":false,"port":5,"protocol":"tcp","type":"valtor",)" +
                           tail + R"(,{"enabled":true,"port":6,"protocol":"ws","type":"valtor",)" +
                           tail + "]}");
}

// --- The incoming-client file --------------------------------------------------------------------

TEST_F(ManagerTest, TheIncomingClientFileListsServerConnectionPoints) {
  manager.add(clientDescription("A"));
  EXPECT_FALSE(std::filesystem::exists(incomingClientFile()));
  manager.writeIncomingClientConnections(true);
  EXPECT_EQ(fileContent(incomingClientFile()), R"({"serverConnectionPoint":[],"type":"valtor"})");
  const auto in = manager.add(serverDescription("in"));
  EXPECT_EQ(fileContent(incomingClientFile()), R"({"serverConnectionPoint":[)" +
                                                   printJSON(in->toJSON().get(), false) +
                                                   R"(],"type":"valtor"})");
}

TEST_F(ManagerTest, AFailedWriteIsLoggedAndStopsNothing) {
  std::filesystem::create_directories(incomingClientFile());
  const LogCapture log;
  EXPECT_NE(manager.add(serverDescription("in")), nullptr);
  ASSERT_EQ(log.countContaining("error while opening file: " + incomingClientFile()), 1);
  for (const LogLine& line : log.lines()) {
    if (line.text.find("error while opening file: ") != std::string::npos) {
      EXPECT_EQ(line.priority, LOG_ERR);
    }
  }
}

TEST_F(ManagerTest, TheNewestListWinsWhenTwoThreadsWrite) {
  const auto first = manager.add(serverDescription("first"));
  for (int round = 0; round < kRaceRounds / 8; ++round) {
    const SlowRendering slow(*first);
    std::thread writer([this] { manager.writeIncomingClientConnections(true); });
    slow.waitForStart();
    const std::string uniqueID = "S" + std::to_string(round);
    manager.add(serverDescription(uniqueID));
    writer.join();
    ASSERT_NE(fileContent(incomingClientFile()).find("\"" + uniqueID + "\""), std::string::npos);
  }
}

TEST(IncomingClientDirectoryTest, IsMadeAndOpenedWhateverItsName) {
  const TemporaryFolder folder;
  const std::string path = folder.at("it's $HOME; `here`/");
  prepareIncomingClientDirectory(path);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0777U);
}

TEST(IncomingClientDirectoryTest, WhatIsNotOursKeepsItsMode) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.at("target"));
  std::filesystem::permissions(folder.at("target"), std::filesystem::perms::owner_all);
  std::filesystem::create_directory_symlink(folder.at("target"), folder.at("link"));
  folder.write("file", "x");
  chmod(folder.at("file").c_str(), 0600);
  std::filesystem::create_directory(folder.at("foreign"));
  std::filesystem::permissions(folder.at("foreign"), std::filesystem::perms::owner_all);
  const bool foreign = chown(folder.at("foreign").c_str(), 12345, 12345) == 0;
  const LogCapture log;
  for (const char* name : {"link", "file", "foreign"}) {
    if (name == std::string("foreign") && !foreign) {
      continue;  // only root can give a folder away
    }
    const std::size_t before = log.lines().size();
    prepareIncomingClientDirectory(folder.at(name) + "/");
    struct stat status {};
    ASSERT_EQ(stat(folder.at(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0077, 0U) << name;
    EXPECT_EQ(log.lines().size(), before + 1) << name;
  }
}

// --- The database file ---------------------------------------------------------------------------

}  // namespace
}  // namespace valtor::test
