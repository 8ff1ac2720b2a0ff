#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <syslog.h>
#include <thread>

#include "ConnectionFakes.h"
#include "connections/ConnectionPointCleanupThread.h"
#include "support/ConsoleCapture.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"

namespace valtor::test {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kNever = std::chrono::hours(1);

std::shared_ptr<FakeConnectionPoint> addMarked(FakeManager& manager, const std::string& uniqueID) {
  auto cp = manager.add(serverDescription(uniqueID));
  cp->markForDeletion(true);
  return cp;
}

TEST(PurgeTest, RemovesOnlyMarkedAndDisconnectedServerConnectionPoints) {
  Scene scene;
  FakeManager manager(scene.client);
  manager.setCleanupInterval(kNever);
  const std::weak_ptr<ConnectionPoint> gone = addMarked(manager, "gone");
  addMarked(manager, "back")->setConnected(true);
  manager.add(clientDescription("client"))->markForDeletion(true);
  manager.add(serverDescription("unmarked"));
  scene.client.clear();
  const ConsoleCapture console;
  manager.purgeMarkedClients();
  EXPECT_EQ(manager.ids(), "back client unmarked");
  EXPECT_TRUE(gone.expired());
  EXPECT_TRUE(console.contains("Found client marked for deletion: gone\n"));
  EXPECT_EQ(scene.client.sent().size(), 1U);
  EXPECT_NE(scene.client.bodies()[0].find(R"({"paramDelete":{"serverConnectionPoint":[{)"),
            std::string::npos);
  const std::string list = fileContent(incomingClientFile());
  EXPECT_EQ(list.find("\"gone\""), std::string::npos);
  EXPECT_NE(list.find("\"unmarked\""), std::string::npos);
}

TEST(PurgeTest, LeavesAConnectionPointThatIsJustBeingUpdated) {
  Scene scene;
  FakeManager manager(scene.client);
  manager.setCleanupInterval(kNever);
  const auto cp = addMarked(manager, "in");
  cp->onDisconnect = [&manager] { manager.purgeMarkedClients(); };
  std::string moved = serverDescription("in");
  moved.replace(moved.find("700"), 3, "701");
  manager.addOrUpdateConnectionPoint(manager.createConnectionPoint(parseJSON(moved).get()));
  EXPECT_EQ(cp->disconnects, 1);
  EXPECT_EQ(manager.get("in"), cp);
}

TEST(PurgeTest, GivesWayToWhoeverHoldsTheLockAndCountsThat) {
  Scene scene;
  FakeManager manager(scene.client);
  manager.setCleanupInterval(kNever);
  addMarked(manager, "gone");
  const auto purgeOften = [&manager](int times) {
    std::thread([&] {
      for (int i = 0; i < times; ++i) {
        manager.purgeMarkedClients();
      }
    }).join();
  };
  const auto line = [](int attempt) {
    return "CANT ACQUIRE LOCK = attempt " + std::to_string(attempt) + " (rv=16)! " +
           std::strerror(EBUSY) + "\n";
  };
  {
    const ConsoleCapture console;
    manager.whileLocked([&] { purgeOften(2); });
    EXPECT_EQ(console.text(), line(1) + line(2));
  }
  EXPECT_EQ(manager.ids(), "gone");
  purgeOften(1);
  EXPECT_EQ(manager.ids(), "");
  const ConsoleCapture console;
  manager.whileLocked([&] { purgeOften(1); });
  EXPECT_EQ(console.text(), line(1)) << "a pass that gets the lock starts the count again";
}

TEST(CleanupThreadTest, GoesOnWhenTheFileCannotBeWritten) {
  Scene scene;
  std::filesystem::create_directories(incomingClientFile());
  FakeManager manager(scene.client);
  manager.setCleanupInterval(milliseconds(5));
  const LogCapture log;
  addMarked(manager, "first");
  EXPECT_TRUE(eventually([&] { return manager.ids().empty(); }));
  addMarked(manager, "second");
  EXPECT_TRUE(eventually([&] { return manager.ids().empty(); }));
  EXPECT_GE(log.countContaining("error while opening file: "), 2);
}

TEST(CleanupThreadTest, EndAndThreadMayCloseThePipeAtTheSameTime) {
  Scene scene;
  FakeManager manager(scene.client);
  const LogCapture log;
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

TEST(CleanupThreadTest, AManagerMayGoJustAsAPurgeReturns) {
  const ConsoleCapture quiet;
  Scene scene;
  for (int round = 0; round < kRaceRounds; ++round) {
    FakeManager manager(scene.client);
    manager.setCleanupInterval(milliseconds(1));
    const std::weak_ptr<ConnectionPoint> marked = addMarked(manager, "gone");
    ASSERT_TRUE(eventually([&] { return marked.expired(); }));
  }
}

// What a request has just described stays, however close the purge is.
TEST(CleanupThreadTest, APurgeNeverTakesWhatARequestHasJustDescribed) {
  const ConsoleCapture quiet;
  Scene scene;
  FakeManager manager(scene.client);
  manager.setCleanupInterval(milliseconds(0));
  const std::string update = R"({"param":{"connectionPoint":[)" + serverDescription("in") + "]}}";
  for (int round = 0; round < kRaceRounds; ++round) {
    if (const auto present = manager.get("in")) {
      present->markForDeletion(true);
    }
    manager.handle(MessageKind::UPDATE, "device", update);
    ASSERT_NE(manager.get("in"), nullptr);
    manager.handle(MessageKind::GET, "device", R"({"objectName":["connectionPointManager"]})");
    ASSERT_NE(manager.answers.find("\"in\""), std::string::npos);
    if (round % 3 == 0) {
      manager.handle(MessageKind::DEL, "device", R"({"objectName":["connectionPoint.in"]})");
      ASSERT_EQ(manager.get("in"), nullptr);
    }
  }
}

}  // namespace
}  // namespace valtor::test
