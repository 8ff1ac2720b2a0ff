#include "peers/RemoteRouters.h"

namespace valtor::test {
namespace {

class PeerRace : public RemoteRouters {
 protected:
  static constexpr int kRounds = repetitions(300);

  // Hangs up on the router's standing link, so that its receive thread reports the loss and comes
  // back at once, and lets that get a different distance each round.
  static void shake(ScriptedNode& node, int round) {
    node.accept()->close();
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::microseconds(100 * (round % 40));
    while (std::chrono::steady_clock::now() < end) {
    }
  }
  // Takes and drops the connections that wait to be accepted.
  static void drain(ScriptedNode& node) {
    while (node.hasConnectionWithin(std::chrono::milliseconds(0))) {
      node.accept();
    }
  }
};

TEST_F(PeerRace, LinkUpAgainstRemoval) {
  for (int round = 0; round < kRounds; ++round) {
    put(node_);
    shake(node_, round);
    removeAll();
    ASSERT_EQ(peerCount(), 0U);
    const std::string last = bus_.payloads().back();
    ASSERT_NE(last.find("paramDelete"), std::string::npos) << last;
    ASSERT_EQ(last.find("\"connected\":true"), std::string::npos) << last;
    bus_.clear();
    drain(node_);
  }
}

TEST_F(PeerRace, LinkUpAgainstANewAddress) {
  ScriptedNode nodes[2] = {ScriptedNode("127.0.0.2"), ScriptedNode("127.0.0.3")};
  const auto point = put(nodes[0]);
  for (int round = 0; round < kRounds; ++round) {
    ScriptedNode& old = nodes[round % 2];
    ScriptedNode& next = nodes[(round + 1) % 2];
    shake(old, round);
    put(next);
    ASSERT_TRUE(eventually([&] { return point->isConnected(); }));
    ASSERT_EQ(peer()->host(), next.address());
    drain(old);
  }
}

// Nobody tells the end of a link that failed while it logged in.
TEST_F(PeerRace, OwnerAgainstALinkThatDoesNotLogIn) {
  for (int round = 0; round < kRounds / 6; ++round) {
    std::shared_ptr<ConnectionPoint> point;
    {
      ScriptedNode node("127.0.0.3");
      std::atomic<bool> over{false};
      std::thread hangUp([&] {
        for (int links = 0; links < 10; ++links) {
          node.accept()->reset();
        }
        over = true;
      });
      while (!over) {
        point = put(node);
      }
      hangUp.join();
    }
    ASSERT_TRUE(eventually([&] { return !peer()->isConnected() && !point->isConnected(); }));
  }
}

TEST_F(PeerRace, DisconnectThenConnect) {
  const auto point = put(node_);
  for (int round = 0; round < kRounds; ++round) {
    shake(node_, round);
    point->disconnect();
    ASSERT_FALSE(point->isConnected());
    ASSERT_FALSE(peer()->isConnected());
    drain(node_);
    ASSERT_EQ(point->connect(), 1);
    ASSERT_TRUE(eventually([&] { return point->isConnected(); }));
    ASSERT_EQ(peerCount(), 1U);
  }
}

TEST_F(PeerRace, DestructionAgainstASuccessorOfTheSameID) {
  for (int round = 0; round < kRounds; ++round) {
    auto older = make(phyText(node_));
    older->connect();
    const auto newer = make(phyText(node_));
    std::thread end([&older] { older.reset(); });
    EXPECT_EQ(newer->connect(), 1);
    end.join();
    ASSERT_TRUE(eventually([&] { return newer->isConnected(); }));
    ASSERT_EQ(peerCount(), 1U);
    drain(node_);
  }
}

}  // namespace
}  // namespace valtor::test
