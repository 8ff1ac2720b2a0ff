#include <cerrno>
#include <cstring>

#include "connections/ConnectionFakes.h"

namespace valtor::test {
namespace {

using std::chrono::milliseconds;

std::shared_ptr<FakeConnectionPoint> addMarked(FakeManager& manager, const std::string& uniqueID) {
  auto cp = manager.add(serverDescription(uniqueID));
  cp->markForDeletion(true);
  return cp;
}

class PurgeTest : public ConnectionsTest {};

TEST_F(PurgeTest, RemovesOnlyMarkedAndDisconnectedServerConnectionPoints) {
  const std::weak_ptr<ConnectionPoint> gone = addMarked(manager, "gone");
  const std::string description = rendered(*manager.get("gone"));
  addMarked(manager, "back")->setConnected(true);
  manager.add(clientDescription("client"))->markForDeletion(true);
  manager.add(serverDescription("unmarked"));
  bus.clear();
  manager.purgeMarkedClients();
  EXPECT_EQ(manager.ids(), "back client unmarked");
  EXPECT_TRUE(gone.expired());
  EXPECT_TRUE(console.contains("Found client marked for deletion: gone\n"));
  EXPECT_EQ(bus.payloads(),
            Payloads{notification("paramDelete", "serverConnectionPoint", description)});
  const std::string list = fileContent(incomingClientFile());
  EXPECT_EQ(list.find("\"gone\""), std::string::npos);
  EXPECT_NE(list.find("\"unmarked\""), std::string::npos);
}

TEST_F(PurgeTest, LeavesAConnectionPointThatIsJustBeingUpdated) {
  const auto cp = addMarked(manager, "in");
  cp->onDisconnect = [this] { manager.purgeMarkedClients(); };
  manager.merge(serverDescription("in", 701));
  EXPECT_EQ(cp->disconnects, 1);
  EXPECT_EQ(manager.get("in"), cp);
}

TEST_F(PurgeTest, GivesWayToWhoeverHoldsTheLockAndCountsThat) {
  addMarked(manager, "gone");
  const auto purgeInVain = [this] {
    manager.connectionPoints().forEach([this](const ConnectionPoint&) {  // of which there is one
      std::thread([this] { manager.purgeMarkedClients(); }).join();
    });
  };
  const auto line = [](int attempt) {
    return "CANT ACQUIRE LOCK = attempt " + std::to_string(attempt) + " (rv=16)! " +
           std::strerror(EBUSY) + "\n";
  };
  purgeInVain();
  purgeInVain();
  EXPECT_EQ(console.text(), line(1) + line(2));
  EXPECT_EQ(manager.ids(), "gone");
  manager.purgeMarkedClients();
  EXPECT_EQ(manager.ids(), "");
  EXPECT_EQ(fileContent(incomingClientFile()), R"({"serverConnectionPoint":[],"type":"valtor"})");
  manager.add(serverDescription("another"));
  purgeInVain();
  EXPECT_FALSE(console.contains("attempt 3")) << "a pass that gets the lock starts the count again";
}

TEST_F(PurgeTest, WhatTheDiskRefusesIsWrittenLaterAndADiskThatIsBrokenFillsNoLog) {
  std::filesystem::create_directories(incomingClientFile());
  std::filesystem::create_directories(manager.filePath() + ".new");
  manager.add(serverDescription("in"));
  manager.handle("SET", R"({"param":{"connectionPoint":[)" + clientDescription("A") + "]}}");
  for (int pass = 0; pass < 100; ++pass) {
    manager.writeAgain();
  }
  EXPECT_EQ(log.countContaining("could not write"), 1 + 6 + 3);
  EXPECT_EQ(manager.unsavedFiles(), 2U);
  std::filesystem::remove(incomingClientFile());
  std::filesystem::remove(manager.filePath() + ".new");
  for (int pass = 0; pass < 30; ++pass) {
    manager.writeAgain();
  }
  EXPECT_EQ(manager.unsavedFiles(), 0U);
  EXPECT_NE(fileContent(manager.filePath()).find("connectionPointManager"), std::string::npos);
  EXPECT_NE(fileContent(incomingClientFile()).find("\"in\""), std::string::npos);
}

class CleanupThreadTest : public ConnectionsTest {};

TEST_F(CleanupThreadTest, GoesOnWhenTheFileCannotBeWritten) {
  std::filesystem::create_directories(incomingClientFile());
  manager.setCleanupInterval(milliseconds(5));
  for (int round = 0; round < 2; ++round) {
    addMarked(manager, "in");
    ASSERT_TRUE(eventually([&] { return manager.ids().empty(); }));
  }
  EXPECT_GE(log.count(LOG_ERR,
                      "The list of incoming valtor clients is not on disk: error while opening "
                      "file: " +
                          incomingClientFile() + "\n"),
            2);
  std::filesystem::remove(incomingClientFile());
  EXPECT_TRUE(eventually([] {
    return fileContent(incomingClientFile()) == R"({"serverConnectionPoint":[],"type":"valtor"})";
  }));
}

TEST_F(CleanupThreadTest, WhatWasRefusedIsWrittenWithoutAnyConnectionPoint) {
  std::filesystem::create_directories(manager.filePath() + ".new");
  manager.setCleanupInterval(milliseconds(5));
  manager.handle("SET", R"({"param":{"connectionPoint":[]}})");
  EXPECT_EQ(manager.unsavedFiles(), 1U);
  std::filesystem::remove(manager.filePath() + ".new");
  EXPECT_TRUE(eventually([&] { return manager.unsavedFiles() == 0; }));
}

TEST_F(CleanupThreadTest, EndAndThreadMayCloseThePipeAtTheSameTime) {
  for (int round = 0; round < kRaceRounds; ++round) {
    ConnectionPointCleanupThread thread(manager, milliseconds(0));
    ASSERT_TRUE(thread.start());
    std::thread other([&thread] { thread.end(); });
    thread.end();
    other.join();
    EXPECT_EQ(thread.join(), 0);
  }
  EXPECT_EQ(log.countContaining("self-pipe"), 0);
}

TEST_F(CleanupThreadTest, AManagerMayGoJustAsAPurgeReturns) {
  for (int round = 0; round < kRaceRounds; ++round) {
    FakeManager shortLived(bus);
    shortLived.setCleanupInterval(milliseconds(1));
    const std::weak_ptr<ConnectionPoint> marked = addMarked(shortLived, "gone");
    ASSERT_TRUE(eventually([&] { return marked.expired(); }));
  }
}

TEST_F(CleanupThreadTest, APurgeNeverTakesWhatARequestHasJustDescribed) {
  manager.setCleanupInterval(milliseconds(0));
  for (int round = 0; round < kRaceRounds; ++round) {
    if (const auto present = manager.get("in")) {
      present->markForDeletion(true);
    }
    manager.handle("UPDATE", R"({"param":{"connectionPoint":[)" + serverDescription("in") + "]}}");
    ASSERT_EQ(manager.ids(), "in");
    if (round % 3 == 0) {
      ASSERT_TRUE(manager.handle("DEL", R"({"objectName":["connectionPoint.in"]})"));
    }
  }
}

}  // namespace
}  // namespace valtor::test
