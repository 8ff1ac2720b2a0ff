#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "peers/RemoteRouters.h"
#include "support/Eventually.h"
#include "support/Repeat.h"

namespace valtor {
namespace {

using test::eventually;
using test::RemoteRouters;
using test::repetitions;
using test::routerText;
using test::ScriptedNode;

constexpr int kRounds = 300;

// Hangs up on the router's standing link, so that its receive thread reports the loss and comes
// back at once, and lets that get a different distance each round.
void shake(ScriptedNode& node, int round) {
  node.accept()->close();
  const auto pause = std::chrono::microseconds(100 * (round % 40));
  const auto end = std::chrono::steady_clock::now() + pause;
  while (std::chrono::steady_clock::now() < end) {
  }
}

bool saysConnected(const std::string& payload) {
  return payload.find("\"connected\":true") != std::string::npos;
}

TEST(PeerRace, LinkUpAgainstRemoval) {
  RemoteRouters routers;
  for (int round = 0; round < repetitions(kRounds); ++round) {
    ScriptedNode node("127.0.0.2");
    routers.put("r", routerText("r", node));
    shake(node, round);
    routers.removeAll();
    ASSERT_EQ(RemoteRouters::peerCount(), 0U);
    const std::string last = routers.bus.payloads().back();
    ASSERT_NE(last.find("paramDelete"), std::string::npos) << last;
    ASSERT_FALSE(saysConnected(last)) << last;
    routers.bus.clear();
  }
}

TEST(PeerRace, LinkUpAgainstANewAddress) {
  RemoteRouters routers;
  ScriptedNode nodes[2] = {ScriptedNode("127.0.0.2"), ScriptedNode("127.0.0.3")};
  auto point = routers.put("r", routerText("r", nodes[0]));
  for (int round = 0; round < repetitions(kRounds); ++round) {
    ScriptedNode& old = nodes[round % 2];
    ScriptedNode& next = nodes[(round + 1) % 2];
    shake(old, round);
    routers.put("r", routerText("r", next));
    ASSERT_TRUE(eventually([&] { return point->isConnected(); }));
    ASSERT_EQ(RemoteRouters::peer("r")->host(), next.address());
    while (old.hasConnectionWithin(std::chrono::milliseconds(0))) {
      old.accept();
    }
  }
}

TEST(PeerRace, DisconnectThenConnect) {
  RemoteRouters routers;
  ScriptedNode node("127.0.0.2");
  const auto point = routers.put("r", routerText("r", node));
  for (int round = 0; round < repetitions(kRounds); ++round) {
    shake(node, round);
    point->disconnect();
    ASSERT_FALSE(point->isConnected());
    ASSERT_FALSE(RemoteRouters::peer("r")->isConnected());
    while (node.hasConnectionWithin(std::chrono::milliseconds(0))) {
      node.accept();
    }
    ASSERT_EQ(point->connect(), 1);
    ASSERT_TRUE(eventually([&] { return point->isConnected(); }));
  }
}

TEST(PeerRace, DestructionAgainstASuccessorOfTheSameID) {
  RemoteRouters routers;
  ScriptedNode node("127.0.0.2");
  for (int round = 0; round < repetitions(kRounds); ++round) {
    auto older = routers.make(routerText("r", node));
    older->connect();
    const auto newer = routers.make(routerText("r", node));
    std::thread end([&older] { older.reset(); });
    EXPECT_EQ(newer->connect(), 1);
    end.join();
    ASSERT_TRUE(eventually([&] { return newer->isConnected(); }));
    ASSERT_EQ(RemoteRouters::peerCount(), 1U);
    while (node.hasConnectionWithin(std::chrono::milliseconds(0))) {
      node.accept();
    }
  }
}

}  // namespace
}  // namespace valtor
