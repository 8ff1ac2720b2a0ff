#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "app/RunningDaemon.h"
#include "support/Repeat.h"

namespace valtor::test {
namespace {

class DaemonTest : public RunningDaemonTest {};

// The numbers of the messages {"n":<number>...} that one sender brought to a node, in order.
class Numbers {
 public:
  explicit Numbers(std::string sender) : sender_(std::move(sender)) {}

  static std::string body(int number, const std::string& more = "") {
    return "{\"n\":" + std::to_string(number) + more + "}";
  }
  std::function<void(const PassedMessage&)> listener() {
    return [this](const PassedMessage& message) {
      const std::string start(message.body().substr(0, 20));
      if (message.from == sender_ && start.rfind("{\"n\":", 0) == 0) {
        const std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back(std::stoi(start.substr(5)));
      }
    };
  }
  std::vector<int> seen() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }
  bool becomesComplete(std::size_t count) const {
    return eventually([&] { return seen().size() >= count; });
  }

  static std::vector<int> upTo(int count) {
    std::vector<int> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
  }

 private:
  const std::string sender_;
  mutable std::mutex mutex_;
  std::vector<int> seen_;
};

TEST_F(DaemonTest, StartUpTriesTheBusInstallsThePeerManagerAndThenLoadsTheDatabase) {
  writeActiveDatabase("");
  std::filesystem::remove(paths().databaseDirectory + "activeDatabase.json");
  (*site.controller)->stopListening();
  startDaemon();
  const auto lines = log.lines();
  const auto place = [&](const char* text) {
    return std::find_if(
               lines.begin(), lines.end(),
               [&](const LogLine& line) { return line.text.find(text) != std::string::npos; }) -
           lines.begin();
  };
  EXPECT_LT(place("connect error: Connection refused 127.0.0.1"),
            place("Error loading active database: "));
  EXPECT_LT(place("Error loading active database: "), place("Error loading DB connectionPoints: "));
  EXPECT_NE(place("Error loading DB connectionPoints: "), std::ssize(lines));
  EXPECT_NE(routerPeerManager(), nullptr);
  EXPECT_FALSE(daemon->client().hasNoHandlers());
  (*site.controller)->startListening();  // and the client comes by itself, with what it now offers
  EXPECT_TRUE(BridgeSite::becomesLinked(*site.controller));
  EXPECT_EQ(site.controller->countEvents("name=valtorRemote id=101 interface=[{"), 1U);
}

TEST_F(DaemonTest, ItsFirstLoginComesBeforeTheDatabaseAndEveryListedRouterIsLinkedAfterwards) {
  startDaemon();
  EXPECT_TRUE(site.becomesComplete());
  EXPECT_EQ(site.controller->countEvents("LOGIN"), 1U);
  EXPECT_EQ(site.controller->countEvents("interface="), 0U);
  EXPECT_EQ(site.alpha->countEvents("name=alpha id=10000"), 1U);
  EXPECT_EQ(site.beta->countEvents("name=beta id=10000"), 1U);
}

TEST_F(DaemonTest, WithTheDatabaseSkippedNothingIsLoadedUntilARoleOtherThanStandby) {
  site.startController("standby");
  startDaemon(true);
  ASSERT_TRUE(eventually([&] { return answeredRoles() == 1; }));
  (*site.controller)->setRole("standby");
  ASSERT_TRUE(eventually([&] { return answeredRoles() == 2; }));
  EXPECT_TRUE(holdsNothing());
  EXPECT_EQ(log.countContaining("main/connectionPoints.json"), 0);
  EXPECT_EQ(site.alpha->countEvents("ACCEPT"), 0U);
  (*site.controller)->setRole("master");
  EXPECT_TRUE(site.becomesComplete());
}

TEST_F(DaemonTest, BytesCrossTheBridgeUnchangedBothWays) {
  startDaemon();
  ASSERT_TRUE(site.becomesComplete());
  int number = 0;
  for (
      const std::string& body : std::vector<std::string>{
          "{ \"id\" :\t\"spaced\" ,\r\n \"list\":[ 1 ,2 ] }  ",
          R"({"big":12345678901234567890123,"small":-0.0,"exp":1E+2,"long":0.10000000000000000001})",
          R"({"text":"\u00e9\ud83d\ude00 \/ é","text":"twice","Text":null})", "no JSON at all", "",
          "{\"tail\":1} and more", std::string(300000, ' ') + "[]"}) {
    const std::string sent = ", 0]\n" + body;
    EXPECT_TRUE(
        BridgeSite::crosses(*site.controller, *site.alpha,
                            "[\"CMD\", \"route\", 490, " + std::to_string(++number) + sent));
    EXPECT_TRUE(
        BridgeSite::crosses(*site.alpha, *site.controller,
                            "[\"RSP\", \"route\", 100, " + std::to_string(++number) + sent));
  }
}

class DaemonOrderTest : public RunningDaemonTest {
 protected:
  // The nodes are started again, so that what the daemon brings them is noted.
  void startAll() {
    site.alpha = site.start(BridgeSite::kAlphaAddress, atAlpha.listener());
    site.beta = site.start(BridgeSite::kBetaAddress, atBeta.listener());
    site.startController("active", nullptr, atController.listener());
    writeActiveDatabase(site.alphaEntry() + "," + site.betaEntry());
    startDaemon();
    ASSERT_TRUE(site.becomesComplete());
  }
  void command(int number, std::size_t padding = 0) {
    (*site.controller)
        ->inject(490, "CMD", "route", 0,
                 Numbers::body(number, ",\"pad\":\"" + std::string(padding, 'x') + '"'));
  }

  Numbers atController{"valtorRemote"};
  Numbers atAlpha{"alpha"};
  Numbers atBeta{"beta"};
};

TEST_F(DaemonOrderTest, ThousandsOfMessagesCrossCompleteAndInOrderBothWays) {
  constexpr int kCount = 2000;
  startAll();
  std::thread answers([this] {
    for (int i = 0; i < kCount; ++i) {
      (*site.alpha)->inject(100, "RSP", "route", 490, Numbers::body(i));
    }
  });
  for (int i = 0; i < kCount; ++i) {
    command(i, static_cast<std::size_t>(i));
  }
  answers.join();
  EXPECT_TRUE(atAlpha.becomesComplete(kCount));
  EXPECT_TRUE(atBeta.becomesComplete(kCount));
  EXPECT_TRUE(atController.becomesComplete(kCount));
  EXPECT_EQ(atAlpha.seen(), Numbers::upTo(kCount));
  EXPECT_EQ(atBeta.seen(), Numbers::upTo(kCount));
  EXPECT_EQ(atController.seen(), Numbers::upTo(kCount));
}

TEST_F(DaemonOrderTest, ARouterThatStopsReadingCostsTheOtherNothingAndKeepsItsFraming) {
  constexpr std::size_t kMoreThanSocketsHold = 12'000'000;
  startAll();
  (*site.alpha)->setReadingPaused(MessageNode::kEveryone, true);
  std::atomic<bool> stop{false};
  std::thread signsOfLife([&] {  // else the router counts as dead
    while (!stop) {
      (*site.alpha)->inject(100, "RSP", "route", 490, "{}");
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  command(0);
  command(1, kMoreThanSocketsHold);
  command(2);
  EXPECT_TRUE(atBeta.becomesComplete(3));
  EXPECT_EQ(atBeta.seen(), Numbers::upTo(3));
  EXPECT_EQ(atAlpha.seen(), std::vector<int>());
  EXPECT_EQ(log.countContaining("FAILED after 100 retries (sent 0/"), 1);
  (*site.alpha)->setReadingPaused(MessageNode::kEveryone, false);
  // The message that had begun to go out is finished first; only the one after it is lost.
  command(3);
  EXPECT_TRUE(atAlpha.becomesComplete(3));
  EXPECT_EQ(atAlpha.seen(), (std::vector<int>{0, 1, 3}));
  stop = true;
  signsOfLife.join();
}

TEST_F(DaemonTest, EverythingEndsWhileTrafficFlowsBothWays) {
  const std::string command = "[\"CMD\", \"route\", 490, 0, 0]\n{\"id\":\"c\"}";
  const std::string answer = "[\"RSP\", \"route\", 100, 490, 0]\n{\"id\":\"a\"}";
  for (int round = 0; round < repetitions(50); ++round) {
    startDaemon();
    ASSERT_TRUE(site.becomesComplete());
    std::atomic<bool> stop{false};
    std::thread traffic([&] {
      while (!stop) {
        (*site.controller)->injectPayload(command);
        (*site.alpha)->injectPayload(answer);
        (*site.beta)->injectPayload(answer);
      }
    });
    EXPECT_TRUE(eventually([&] {
      return BridgeSite::count(*site.alpha, command) > 9 &&
             BridgeSite::count(*site.beta, command) > 9;
    }));
    daemon.reset();
    EXPECT_EQ(routerPeerManager(), nullptr);
    stop = true;
    traffic.join();
    for (RunningNode* node : {site.controller.get(), site.alpha.get(), site.beta.get()}) {
      EXPECT_TRUE(BridgeSite::becomesLeft(*node));
      node->forget();
    }
  }
}

TEST_F(DaemonTest, BuiltStartedAndDestroyedManyTimesItLeavesNothing) {
  for (int round = 0; round < 20; ++round) {
    startDaemon(round % 4 == 3);
    if (round % 2 == 0) {
      ASSERT_TRUE(site.becomesComplete());
    }
    daemon.reset();
    ASSERT_EQ(routerPeerManager(), nullptr);
  }
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.alpha));
  EXPECT_TRUE(BridgeSite::becomesLeft(*site.controller));
}

}  // namespace
}  // namespace valtor::test
