#include <algorithm>
#include <atomic>
#include <numeric>
#include <thread>
#include <vector>

#include "app/Daemon.h"
#include "bus/ValtorInterfaceClient.h"
#include "peers/ValtorRouterPeerManager.h"
#include "support/BridgeSite.h"
#include "support/Repeat.h"
#include "support/ScriptedNode.h"
#include "support/Vocabulary.h"

namespace valtor::test {
namespace {

using namespace std::chrono_literals;

// How a router takes its messages, or does not.
enum class Shape { NeverReads, ReadsByteByByte, ClosesItsReadSide, ResetsAndStallsAgain };

// A router at whose node every connection is treated the same.
class StallingRouter {
 public:
  explicit StallingRouter(Shape shape) : shape_(shape), thread_([this] { run(); }) {}
  ~StallingRouter() {
    stop_ = true;
    thread_.join();
  }
  const ScriptedNode& node() const { return node_; }

 private:
  void run() {
    std::vector<std::unique_ptr<ScriptedPeer>> standing;
    while (!stop_) {
      if (node_.hasConnectionWithin(20ms)) {
        standing.push_back(node_.accept());
        if (shape_ == Shape::ClosesItsReadSide) {
          standing.back()->closeReading();
        }
        resetAt_ = std::chrono::steady_clock::now() + 300ms;
      }
      if (shape_ == Shape::ReadsByteByByte && !standing.empty()) {
        standing.back()->readByte();
      }
      if (shape_ == Shape::ResetsAndStallsAgain && !standing.empty() &&
          std::chrono::steady_clock::now() > resetAt_) {
        standing.back()->reset();
        standing.pop_back();
      }
    }
  }

  const Shape shape_;
  ScriptedNode node_{"127.0.0.4"};
  std::atomic<bool> stop_{false};
  std::chrono::steady_clock::time_point resetAt_;
  std::thread thread_;  // last: it uses the others
};

class StallTest : public testing::TestWithParam<Shape> {
 protected:
  // More than a queue holds, so that what follows meets a full one.
  static constexpr int kMessages = 600;
  static constexpr std::size_t kPadding = 80'000;

  StallTest() {
    folder.becomePathPrefix();
    writeActiveDatabase(entry("127.0.0.4", stalling.node().port()) + "," + site.betaEntry());
    daemon = std::make_unique<Daemon>(false, "127.0.0.1", site.controller->port());
    daemon->setReconnectDelay(10ms);
    daemon->start();
  }
  static std::string entry(const std::string& address, int port, const std::string& more = "") {
    return routerEntry("stalling", address, port, more);
  }
  // A request of a panel; whether it is answered.
  bool isAnswered(const std::string& kind, const std::string& body) {
    const auto answers = [this] {
      return site.controller->countPassed([](const PassedMessage& one) {
        return one.kind == MessageKind::RSP && one.path == "device" && one.destination == 490;
      });
    };
    const std::size_t before = answers();
    (*site.controller)->inject(490, kind, "device", 0, body);
    return eventually([&] { return answers() > before; });
  }

  LogCapture log;
  ConsoleCapture console;
  TemporaryFolder folder;
  BridgeSite site;
  StallingRouter stalling{GetParam()};
  std::unique_ptr<Daemon> daemon;
};

TEST_P(StallTest, NobodyElseNoticesAndEveryWayToEndItsLinkIsHeededWithItsQueueFull) {
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.beta));
  const auto numbered = [](int number) {
    return "{\"n\":" + std::to_string(number) + ",\"pad\":\"" + std::string(kPadding, 'x') + "\"}";
  };
  for (int i = 0; i < kMessages; ++i) {
    (*site.controller)->inject(490, "CMD", "route", 0, numbered(i));
  }
  std::vector<int> got;
  ASSERT_TRUE(eventually([&] {
    got.clear();
    for (const PassedMessage& one : site.beta->passed()) {
      if (one.body().rfind("{\"n\":", 0) == 0) {
        got.push_back(std::stoi(std::string(one.body().substr(5, 10))));
      }
    }
    return got.size() >= kMessages;
  }));
  std::vector<int> expected(kMessages);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(got, expected);
  EXPECT_TRUE(isAnswered("GET", R"({"objectName":["connectionPoint"]})"));
  const auto update = [&](const std::string& description) {
    (*site.controller)
        ->inject(490, "UPDATE", "device", 0,
                 R"({"param":{"connectionPoint":[)" + description + "]}}");
  };
  switch (GetParam()) {
    case Shape::NeverReads:
      (*site.controller)->setRole("standby");
      EXPECT_TRUE(eventually([&] { return routerPeerManager()->peers().empty(); }));
      return;
    case Shape::ReadsByteByByte:
      update(entry("127.0.0.4", stalling.node().port(), R"(,"enabled":false)"));
      EXPECT_TRUE(eventually([&] {
        const auto peer = routerPeerManager()->findPeer("stalling");
        return peer != nullptr && !peer->isConnected();
      }));
      EXPECT_TRUE(
          eventually([&] { return log.countContaining(" is disconnected: disabled.") == 1; }));
      break;
    case Shape::ClosesItsReadSide:
      update(entry(BridgeSite::kAlphaAddress, site.alpha->port()));
      EXPECT_TRUE(BridgeSite::becomesLinked(*site.alpha));
      break;
    case Shape::ResetsAndStallsAgain:
      EXPECT_TRUE(
          isAnswered("DEL", R"({"objectBase":"connectionPoint","objectName":["stalling"]})"));
      EXPECT_TRUE(eventually([&] { return routerPeerManager()->findPeer("stalling") == nullptr; }));
      break;
  }
  EXPECT_TRUE(isAnswered("GET", R"({"objectName":["connectionPoint"]})"));
  EXPECT_TRUE(BridgeSite::crosses(*site.controller, *site.beta,
                                  "[\"CMD\", \"route\", 490, 0, 0]\n{\"last\":1}"));
}

TEST_P(StallTest, AStormOfEveryChangeWhileQueuesAreFullLeavesAWorkingBridge) {
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.beta));
  const std::string large = "{\"pad\":\"" + std::string(200'000, 'x') + "\"}";
  const auto device = [&](const std::string& kind, const std::string& body) {
    (*site.controller)->inject(490, kind, "device", 0, body);
  };
  const auto update = [&](const std::string& description) {
    device("UPDATE", R"({"param":{"connectionPoint":[)" + description + "]}}");
  };
  for (int round = 0; round < std::max(4, repetitions(20)); ++round) {
    for (int i = 0; i < 20; ++i) {
      (*site.controller)->inject(490, "CMD", "route", 0, large);
    }
    switch (round % 4) {
      case 0:
        update(entry("127.0.0.4", stalling.node().port(), R"(,"enabled":false)"));
        break;
      case 1:
        update(entry(BridgeSite::kAlphaAddress, site.alpha->port()));
        break;
      case 2:
        device("DEL", R"({"objectBase":"connectionPoint","objectName":["stalling"]})");
        break;
      default:
        (*site.controller)->setRole("standby");
        (*site.controller)->setRole("active");
        break;
    }
    update(entry("127.0.0.4", stalling.node().port()));
  }
  ASSERT_TRUE(eventually([&] { return !daemon->client().hasNoHandlers(); }));
  ASSERT_TRUE(BridgeSite::becomesLinked(*site.beta));
  EXPECT_TRUE(isAnswered("GET", R"({"objectName":["connectionPoint"]})"));
  EXPECT_TRUE(BridgeSite::crosses(*site.controller, *site.beta,
                                  "[\"CMD\", \"route\", 490, 0, 0]\n{\"last\":1}"));
}

INSTANTIATE_TEST_SUITE_P(Shapes, StallTest,
                         testing::Values(Shape::NeverReads, Shape::ReadsByteByByte,
                                         Shape::ClosesItsReadSide, Shape::ResetsAndStallsAgain));

}  // namespace
}  // namespace valtor::test
