#include <sys/stat.h>

#include "connections/ConnectionFakes.h"
#include "connections/IncomingClientFile.h"

namespace valtor::test {
namespace {

class ManagerTest : public ConnectionsTest {};

TEST_F(ManagerTest, AnAddedConnectionPointReplacesOneOfItsIDOutsideTheLock) {
  const std::weak_ptr<ConnectionPoint> old = manager.add(clientDescription("A"));
  manager.add(clientDescription("A", 6000));
  EXPECT_TRUE(old.expired());
  EXPECT_EQ(manager.get("A")->firstTCPPhy()->getPort(), 6000);
  EXPECT_TRUE(bus.payloads().empty()) << "nothing is announced";
  EXPECT_FALSE(std::filesystem::exists(incomingClientFile())) << "no client of our servers";
}

TEST_F(ManagerTest, TheTwentyFirstIsRefusedWhateverItIs) {
  manager.add(clientDescription("A"));
  for (int i = 0; i < 20; ++i) {
    const auto server = manager.add(serverDescription("S" + std::to_string(i)));
    ASSERT_NE(server, nullptr);
    server->setConnected(true);
  }
  EXPECT_EQ(manager.add(clientDescription("B")), nullptr);
  EXPECT_EQ(log.count(LOG_INFO, "Add ConnectionPoint B refused, Too Many.\n"), 1);
  EXPECT_TRUE(console.contains("Add ConnectionPoint B refused, Too Many.\n"));
  EXPECT_NE(manager.merge(clientDescription("A", 7)), nullptr) << "what is there is still updated";
  manager.get("S3")->setConnected(false);
  EXPECT_NE(manager.add(clientDescription("B")), nullptr);
  manager.add(serverDescription("S4"));
  manager.get("S5")->clearPhys();
  manager.handle("DEL", R"({"objectName":["connectionPoint.S6"]})");
  EXPECT_EQ(manager.countConnectedServerConnectionPoints(), 16U);
}

TEST_F(ManagerTest, AMergeFollowsTheDescription) {
  EXPECT_EQ(manager.merge(clientDescription("A")), nullptr);
  const auto cp = manager.get("A");
  cp->setConnected(true);
  EXPECT_EQ(manager.merge(clientDescription("A")), cp);
  EXPECT_TRUE(cp->isConnected());
  EXPECT_EQ(cp->connects, 1);
  manager.merge(clientDescription("A", 5001));
  EXPECT_EQ(cp->disconnects, 1);
  EXPECT_EQ(cp->connects, 2);
  cp->setConnected(true);
  cp->addDevice("d");
  std::string foreign = clientDescription("A", 7);
  foreign.replace(foreign.find("valtor"), 6, "others");
  AbstractConnectionPointManager::ConnectionPointList list;
  list.push_back(manager.createConnectionPoint(parseJSON(foreign).get()));
  manager.addConnectionPoints(std::move(list));
  EXPECT_EQ(cp->getType(), "valtor") << "another type is none of ours";
  manager.merge(clientDescription("A", 5001, R"(,"enabled":false)"));
  EXPECT_FALSE(cp->isConnected());
  EXPECT_EQ(manager.ids(), "A");
  EXPECT_EQ(cp->connects, 2);
}

TEST_F(ManagerTest, WhatARequestThatWasCutShortLeftUnconnectedIsCaughtUpWith) {
  const auto cp = manager.add(clientDescription("A"));
  cp->onDisconnect = [] { throw std::bad_alloc(); };
  const std::string moved = R"({"param":{"connectionPoint":[)" + clientDescription("A", 7) + "]}}";
  EXPECT_THROW(manager.handle("UPDATE", moved), std::bad_alloc);
  EXPECT_TRUE(manager.isBehind());
  const auto other = manager.add(clientDescription("B"));
  cp->lacksThreads = true;
  manager.catchUp();
  EXPECT_EQ(cp->connects, 2);
  EXPECT_EQ(other->connects, 1);  // not tried
  EXPECT_TRUE(manager.isBehind());
  cp->lacksThreads = false;
  manager.catchUp();
  EXPECT_EQ(cp->connects, 3);
  EXPECT_EQ(other->connects, 2);
  EXPECT_FALSE(manager.isBehind());
  // A link that was to end ends, too, and is announced so.
  cp->setConnected(true);
  const std::string off = R"({"param":{"connectionPoint":[)" +
                          clientDescription("A", 5000, R"(,"enabled":false)") + "]}}";
  cp->onDisconnect = [] { throw std::bad_alloc(); };
  EXPECT_THROW(manager.handle("UPDATE", off), std::bad_alloc);
  cp->onDisconnect = [] {};
  cp->onRender = [] { throw std::bad_alloc(); };
  EXPECT_THROW(manager.catchUp(), std::bad_alloc);
  EXPECT_TRUE(manager.isBehind());
  cp->onRender = [] {};
  manager.catchUp();
  EXPECT_FALSE(cp->isConnected());
  EXPECT_FALSE(cp->isEnding());
  EXPECT_FALSE(manager.isBehind());
}

TEST_F(ManagerTest, ServersAreMergedByTypeAndProtocol) {
  const std::string tail = R"("connectionLimit":4,"numConnections":0})";
  const auto reload = [this](const std::string& document) {
    EXPECT_EQ(manager.loadFromJSON(parseJSON(document).get()), 0);
  };
  const auto expectServers = [&](const std::string& servers) {
    EXPECT_EQ(rendered(manager), R"({"type":"valtor","phy":[],"tcpServer":[)" + servers + "]}");
  };
  EXPECT_TRUE(manager.hasNoTCPServers());
  reload(R"({"tcpServer":[{"enabled":true,"port":1,)" + tail + R"(,{"port":2},9,"x"]})");
  EXPECT_TRUE(console.contains("Emtpy TCPServer Type Detected. Setting to valtor\n"));
  const std::string first = R"({"enabled":true,"port":1,"protocol":"tcp","type":"valtor",)" + tail;
  expectServers(first);
  reload(R"({"tcpServer":[{"enabled":false,"port":1,)" + tail + "]}");
  expectServers(first);  // a difference in enabled alone is none
  reload(R"({"tcpServer":[{"enabled":false,"port":5,)" + tail +
         R"(,{"enabled":true,"port":6,"protocol":"ws",)" + tail + "]}");
  reload("{}");
  expectServers(R"({"enabled":false,"port":5,"protocol":"tcp","type":"valtor",)" + tail +
                R"(,{"enabled":true,"port":6,"protocol":"ws","type":"valtor",)" + tail);
}

// --- The incoming-client file --------------------------------------------------------------------

TEST_F(ManagerTest, TheNewestListWinsWhenThreadsWriteAtOnce) {
  for (int round = 0; round < 40; ++round) {
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i) {
      writers.emplace_back([this] { manager.writeIncomingClientConnections(true); });
    }
    const std::string uniqueID = "S" + std::to_string(round);
    manager.add(serverDescription(uniqueID));
    for (std::thread& writer : writers) {
      writer.join();
    }
    ASSERT_NE(fileContent(incomingClientFile()).find("\"" + uniqueID + "\""), std::string::npos);
  }
}

mode_t modeOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

TEST(IncomingClientFolderTest, IsMadeAndOpenedWhateverItsName) {
  const TemporaryFolder folder;
  const std::string path = folder.at("it's $HOME; `here`/");
  EXPECT_FALSE(IncomingClientFile::prepareFolder(path + "below/")) << "nothing to make it in yet";
  EXPECT_TRUE(IncomingClientFile::prepareFolder(path));
  EXPECT_EQ(modeOf(path), 0777U);
}

TEST(IncomingClientFolderTest, WhatIsNotOursKeepsItsMode) {
  namespace fs = std::filesystem;
  LogCapture log;
  const TemporaryFolder folder;
  fs::create_directory(folder.at("foreign"));
  fs::create_directory_symlink("foreign", folder.at("link"));
  folder.write("file", "x");
  fs::permissions(folder.at("foreign"), fs::perms::owner_all);
  fs::permissions(folder.at("file"), fs::perms::owner_all);
  for (const std::string name : {"link", "file", "foreign"}) {
    if (name == "foreign" && chown(folder.at(name).c_str(), 12345, 12345) != 0) {
      continue;  // only root can give a folder away
    }
    log.clear();
    IncomingClientFile::prepareFolder(folder.at(name) + "/");
    EXPECT_EQ(modeOf(folder.at(name)), 0700U) << name;
    EXPECT_EQ(log.lines().size(), 1U) << name;
  }
}

}  // namespace
}  // namespace valtor::test
