#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

class ControlTest : public NodeFixture {};

TEST_F(ControlTest, ClosingANameCutsItsConnectionsAndNoOther) {
  startNode();
  NodeClient& first = join({"first", 1, {}, false});
  NodeClient second(node->port());
  ASSERT_TRUE(second.login("first", 1));
  join({"other", 2, {}, false});
  ASSERT_TRUE(eventually([&] { return node->countEvents("name=first id=1") == 2; }));
  EXPECT_EQ((*node)->closeConnections("first"), 2U);
  EXPECT_EQ(first.waitForEnd(), NodeClient::End::Closed);
  EXPECT_EQ(second.waitForEnd(), NodeClient::End::Closed);
  EXPECT_EQ((*node)->closeConnections("first"), 0U);
  EXPECT_EQ(received("other"), std::vector<std::string>{});
  EXPECT_EQ((*node)->closeConnections(MessageNode::kEveryone), 1U);
}

TEST_F(ControlTest, AResetLooksLikeOne) {
  startNode();
  NodeClient& client = join({"client", 1, {}, false});
  EXPECT_EQ((*node)->resetConnections("client"), 1U);
  EXPECT_EQ(client.waitForEnd(), NodeClient::End::Reset);
}

TEST_F(ControlTest, AHangUpEndsTheConnection) {
  startNode();
  join({"client", 1, {}, false});
  clients.clear();
  EXPECT_TRUE(eventually([&] { return node->countEvents("CLOSE #1 name=client hung up") == 1; }));
  EXPECT_TRUE((*node)->participants().empty());
}

TEST_F(ControlTest, NobodyGetsInWhileItDoesNotListen) {
  startNode();
  join({"early", 1, {}, false});
  const uint16_t port = node->port();
  (*node)->stopListening();
  EXPECT_FALSE(NodeClient(port).isOpen());
  EXPECT_EQ(received("early"), std::vector<std::string>{});
  ASSERT_FALSE((*node)->startListening());
  ASSERT_FALSE((*node)->startListening());
  EXPECT_EQ(node->port(), port);
  join({"late", 2, {}, false});
}

TEST_F(ControlTest, APortInUseIsReported) {
  startNode();
  MessageNode::Options options;
  options.port = node->port();
  MessageNode second(std::move(options));
  EXPECT_EQ(second.startListening(), std::errc::address_in_use);
}

TEST_F(ControlTest, WritingPausedIsSilenceAndNothingIsLost) {
  startNode();
  NodeClient& client = join({"client", 1, {"db"}, false});
  (*node)->setWritingPaused("client", true);
  ASSERT_TRUE((*node)->inject(2, "NOT", "db", 0, "{}"));
  EXPECT_EQ((*node)->participants().at(0).unsentBytes, 29U);
  EXPECT_FALSE(client.hasInput());
  (*node)->setWritingPaused("client", false);
  EXPECT_EQ(received("client"), std::vector<std::string>{"[\"NOT\", \"db\", 2, 0, 0]\n{}"});
}

TEST_F(ControlTest, ReadingPausedFillsTheSendersConnection) {
  startNode();
  (*node)->setReadingPaused(MessageNode::kEveryone, true);
  NodeClient blocked(node->port());
  ASSERT_TRUE(blocked.isOpen());
  ASSERT_TRUE(blocked.login("late", 2));
  EXPECT_TRUE(blocked.fillsUp(64'000'000));
  EXPECT_EQ((*node)->participants().at(0).messagesReceived, 0U);
  // A name paused by itself stays so when everyone else goes on.
  (*node)->setReadingPaused("late", true);
  (*node)->setReadingPaused(MessageNode::kEveryone, false);
  EXPECT_TRUE(eventually([&] { return (*node)->participants().at(0).name == "late"; }));
  EXPECT_TRUE(blocked.fillsUp(64'000'000));
  (*node)->setReadingPaused("late", false);
  EXPECT_FALSE(blocked.fillsUp(1'000'000));
}

TEST_F(ControlTest, RawBytesGoOutAsTheyAre) {
  startNode();
  NodeClient& client = join({"client", 1, {}, false});
  EXPECT_EQ((*node)->writeRaw("client", "3:a"), 1U);
  EXPECT_EQ((*node)->writeRaw("client", "bc;"), 1U);
  EXPECT_EQ((*node)->writeRaw("nobody", "3:abc;"), 0U);
  EXPECT_EQ(client.receive(), "abc");
}

TEST_F(ControlTest, ManyThreadsMayControlOneNode) {
  startNode();
  join({"client", 1, {"db"}, false});
  constexpr int kThreads = 4;
  constexpr int kMessages = 50;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i] {
      for (int k = 0; k < kMessages; ++k) {
        EXPECT_TRUE((*node)->inject(i, "NOT", "db", 0, "{}"));
        EXPECT_EQ((*node)->participants().size(), 1U);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(received("client").size(), static_cast<std::size_t>(kThreads * kMessages));
}

TEST_F(ControlTest, ACallbackMayControlTheNode) {
  RunningNode* running = nullptr;
  std::atomic<bool> ready{false};
  MessageNode::Options options;
  options.onMessage = [&](const PassedMessage& message) {
    if (ready && message.path == "trigger") {
      (*running)->inject(7, "NOT", "db", 0, "{}");
    }
  };
  startNode(std::move(options));
  running = node.get();
  ready = true;
  join({"client", 1, {"db"}, false});
  sendAndWait("client", "[\"NOT\", \"trigger\", 1, 0, 0]\n{}");
  EXPECT_EQ(received("client"), std::vector<std::string>{"[\"NOT\", \"db\", 7, 0, 0]\n{}"});
}

TEST(MessageNodeTest, StoppedNodesLetNobodyWait) {
  for (int i = 0; i < 50; ++i) {
    MessageNode node(MessageNode::Options{});
    ASSERT_FALSE(node.startListening());
    std::thread loop([&node] { node.run(); });
    std::thread stopper([&node] { node.stop(); });
    node.setRole("standby");
    EXPECT_EQ(node.role(), "standby");
    stopper.join();
    loop.join();
  }
}

}  // namespace
}  // namespace valtor::test
