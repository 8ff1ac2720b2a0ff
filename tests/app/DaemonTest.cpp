#include <numeric>

#include "app/Daemon.h"
#include "bus/ValtorInterfaceClient.h"
#include "bus/message/PellInternalStreamParser.h"
#include "peers/ValtorRouterPeerManager.h"
#include "support/BridgeSite.h"
#include "support/ScriptedNode.h"
#include "support/Vocabulary.h"

namespace valtor::test {
namespace {

constexpr int kRounds = 200;

// The daemon's objects in this process, between nodes on free ports. The database lists both
// routers.
class DaemonTest : public testing::Test {
 protected:
  DaemonTest() {
    folder.becomePathPrefix();
    writeActiveDatabase(site.alphaEntry() + "," + site.betaEntry());
  }
  void startDaemon(bool skipDatabase = false) {
    daemon = std::make_unique<Daemon>(skipDatabase, "127.0.0.1", site.controller->port());
    daemon->setReconnectDelay(std::chrono::milliseconds(10));
    daemon->start();
  }
  void endDaemon() {
    daemon.reset();
    EXPECT_EQ(routerPeerManager(), nullptr);
    for (RunningNode* node : {site.controller.get(), site.alpha.get(), site.beta.get()}) {
      EXPECT_TRUE(BridgeSite::becomesLeft(*node));
      node->forget();
    }
  }
  bool holdsNothing() const {
    return daemon->client().hasNoHandlers() && routerPeerManager()->peers().empty();
  }
  // A distance between two events that differs from round to round.
  static void keepDistance(int round) {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::microseconds(200 * (round % 40));
    while (std::chrono::steady_clock::now() < end) {
    }
  }

  static std::string numbered(int number, int padding = 0) {
    return "{\"n\":" + std::to_string(number) + ",\"pad\":\"" +
           std::string(static_cast<std::size_t>(padding), 'x') + "\"}";
  }
  // Whether the daemon, by the name it has there, brings the node these numbers in this order.
  static bool becomes(const std::vector<int>& numbers, const RunningNode& node,
                      const std::string& name) {
    std::vector<int> found;
    eventually([&] {
      found.clear();
      for (const PassedMessage& one : node.passed()) {
        if (one.from == name && one.body().rfind("{\"n\":", 0) == 0) {
          found.push_back(std::stoi(std::string(one.body().substr(5, 10))));
        }
      }
      return found.size() >= numbers.size();
    });
    return found == numbers;
  }

  LogCapture log;
  ConsoleCapture console;
  TemporaryFolder folder;
  BridgeSite site;
  std::unique_ptr<Daemon> daemon;
};

TEST_F(DaemonTest, StartUpTriesTheBusInstallsThePeerManagerAndThenLoadsTheDatabase) {
  std::filesystem::remove(paths().databaseDirectory + "activeDatabase.json");
  (*site.controller)->stopListening();
  startDaemon();
  std::string all;
  for (const LogLine& line : log.lines()) {
    all += line.text;
  }
  const std::size_t database = all.find("active database");
  EXPECT_LT(all.find("connect error"), database) << all;
  EXPECT_LT(database, all.find("DB connectionPoints")) << all;
  EXPECT_EQ(log.countContaining("DB connectionPoints"), 1);
  EXPECT_NE(routerPeerManager(), nullptr);
  EXPECT_FALSE(daemon->client().hasNoHandlers());
  (*site.controller)->startListening();  // the client comes by itself, with what it offers by now
  EXPECT_TRUE(BridgeSite::becomesLinked(*site.controller));
  EXPECT_EQ(site.controller->countEvents("name=valtorRemote id=101 interface=[{"), 1U);
}

TEST_F(DaemonTest, EverythingEndsWhileTrafficFlowsBothWays) {
  const std::string command = "[\"CMD\", \"route\", 490, 0, 0]\n{\"id\":\"c\"}";
  const std::string answer = "[\"RSP\", \"route\", 100, 490, 0]\n{\"id\":\"a\"}";
  for (int round = 0; round < repetitions(50); ++round) {
    startDaemon();
    EXPECT_TRUE(site.becomesComplete());
    std::atomic<bool> stop{false};
    std::thread traffic([&] {
      while (!stop) {
        (*site.controller)->injectPayload(command);
        (*site.alpha)->injectPayload(answer);
        (*site.beta)->injectPayload(answer);
      }
    });
    EXPECT_TRUE(eventually([&] { return BridgeSite::count(*site.beta, command) > 9; }));
    daemon.reset();
    stop = true;
    traffic.join();
    endDaemon();
  }
}

// Fills the queue of a node that never accepts: further attempts to connect to it hang.
std::vector<UniqueDescriptor> fillQueue(const ScriptedNode& node) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(static_cast<uint16_t>(node.port()));
  name.sin_addr.s_addr = inet_addr(node.address().c_str());
  std::vector<UniqueDescriptor> fillers;
  pollfd entry{-1, POLLOUT, 0};
  do {
    fillers.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    entry.fd = fillers.back().get();
    // Whether it hangs is the question.
    static_cast<void>(connect(entry.fd, reinterpret_cast<sockaddr*>(&name), sizeof name));
  } while (poll(&entry, 1, 100) > 0);
  return fillers;
}

TEST_F(DaemonTest, StandbyWhileLinksAreStillConnecting) {
  const ScriptedNode hanging("127.0.0.4");
  const auto fillers = fillQueue(hanging);
  writeActiveDatabase(site.alphaEntry() + "," + routerEntry("hangs", "127.0.0.4", hanging.port()) +
                      "," + routerEntry("refused", "127.0.0.5", 1));
  site.startController("standby");
  startDaemon(true);
  ASSERT_TRUE(eventually([&] { return site.answeredRoles() == 1; }));
  EXPECT_TRUE(holdsNothing());
  for (int round = 0; round < repetitions(kRounds); ++round) {
    site.controller->forget();
    (*site.controller)->setRole("active");
    keepDistance(round);
    (*site.controller)->setRole("standby");
    ASSERT_TRUE(eventually([&] { return site.answeredRoles() == 2; }));
    ASSERT_TRUE(holdsNothing());
    ASSERT_TRUE(BridgeSite::becomesLeft(*site.alpha));
  }
  EXPECT_GT(site.alpha->countEvents("LOGIN"), 0U);
  EXPECT_GT(log.countContaining("connect error: Connection timed out 127.0.0.4"), 0);
}

TEST_F(DaemonTest, StandbyActiveStandbyDuringStartUpEndsInStandby) {
  std::atomic<int> round{0};
  MessageNode::Options options;
  options.onEvent = [&](const std::string& event) {
    if (event.find("path=mv ") != std::string::npos) {  // the last subscription of a login
      for (const char* role : {"standby", "active", "standby"}) {
        (*site.controller)->setRole(role);
        keepDistance(round);
      }
    }
  };
  site.startController(std::move(options));
  site.controller->forget();
  for (; round < repetitions(kRounds); ++round) {
    startDaemon();
    if (round % 3 != 2) {
      // Three announcements, and the answer to the daemon's own question.
      ASSERT_TRUE(eventually([&] { return site.answeredRoles() == 4; }));
      ASSERT_TRUE(holdsNothing());
    }
    endDaemon();
    (*site.controller)->setRole("active");
  }
}

TEST_F(DaemonTest, ThousandsOfMessagesCrossCompleteAndInOrderBothWays) {
  constexpr int kCount = 2000;
  startDaemon();
  ASSERT_TRUE(site.becomesComplete());
  std::thread answers([this] {
    for (int i = 0; i < kCount; ++i) {
      (*site.alpha)->inject(100, "RSP", "route", 490, numbered(i));
    }
  });
  for (int i = 0; i < kCount; ++i) {
    (*site.controller)->inject(490, "CMD", "route", 0, numbered(i, i));
  }
  answers.join();
  std::vector<int> all(kCount);
  std::iota(all.begin(), all.end(), 0);
  EXPECT_TRUE(becomes(all, *site.alpha, "alpha"));
  EXPECT_TRUE(becomes(all, *site.beta, "beta"));
  EXPECT_TRUE(becomes(all, *site.controller, "valtorRemote"));
}

TEST_F(DaemonTest, ARouterThatStopsReadingCostsTheOtherNothingAndKeepsItsFraming) {
  constexpr int kMoreThanSocketsHold = 12'000'000;
  startDaemon();
  ASSERT_TRUE(site.becomesComplete());
  (*site.alpha)->setReadingPaused(MessageNode::kEveryone, true);
  std::atomic<bool> stop{false};
  std::thread signsOfLife([&] {  // else the router counts as dead
    while (!stop) {
      (*site.alpha)->inject(100, "RSP", "route", 490, "{}");
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  const auto command = [this](int number, int padding = 0) {
    (*site.controller)->inject(490, "CMD", "route", 0, numbered(number, padding));
  };
  command(0);
  command(1, kMoreThanSocketsHold);
  command(2);
  EXPECT_TRUE(becomes({0, 1, 2}, *site.beta, "beta"));
  EXPECT_TRUE(becomes({}, *site.alpha, "alpha"));
  (*site.alpha)->setReadingPaused(MessageNode::kEveryone, false);
  command(3);
  EXPECT_TRUE(becomes({0, 1, 2, 3}, *site.alpha, "alpha"));
  stop = true;
  signsOfLife.join();
}

TEST_F(DaemonTest, AFrameThatTheEndOfItsLinkCutsSpoilsNothingOnTheNext) {
  startDaemon();
  ASSERT_TRUE(site.becomesComplete() && site.isServed());
  const std::string whole =
      frame("[\"GET\", \"device\", 490, 0, 0]\n{" + std::string(100000, ' ') + "}");
  for (const std::size_t length : {std::size_t{1}, std::size_t{9}, std::size_t{60000}}) {
    for (RunningNode* bus : {site.controller.get(), site.alpha.get()}) {
      (*bus)->writeRaw(MessageNode::kEveryone, whole.substr(0, length));
      ASSERT_EQ((*bus)->closeConnections(MessageNode::kEveryone), 1U);
      ASSERT_TRUE(BridgeSite::becomesLinked(*bus));
    }
    EXPECT_TRUE(site.isServed());
    EXPECT_TRUE(site.statusArrivesFrom(*site.alpha));
  }
}

}  // namespace
}  // namespace valtor::test
