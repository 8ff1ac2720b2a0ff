#include <string>

#include "peers/RemoteRouters.h"
#include "support/ConsoleCapture.h"

namespace valtor::test {
namespace {

// The payload without the identifier at the front of its body, which differs from run to run.
std::string withoutId(std::string payload) {
  const auto start = payload.find('{') + 1;
  return payload.erase(start, payload.find(',', start) + 1 - start);
}

// A router whose link stands.
class RemoteValtorConnectionPointTest : public RemoteRouters {
 protected:
  void SetUp() override {
    point_ = put(node_);
    ASSERT_TRUE(comesUp(*point_));
    link_ = node_.accept();
  }
  std::string announcement(const std::string& key, const std::string& connected) const {
    return "[\"NOT\", \"device\", 101, 0, 0]\n{\"" + key +
           R"(":{"connectionPoint":[{"type":"valtor","name":"router","uniqueID":"r","phy":[)" +
           phyText(node_) + R"(],"enabled":true,"connected":)" + connected +
           R"(,"showInUI":true}]}})";
  }

  std::shared_ptr<ConnectionPoint> point_;
  std::unique_ptr<ScriptedPeer> link_;
};

TEST_F(RemoteValtorConnectionPointTest, LinkUpAsksForWhatTheRouterNeedsAndRemovalTakesThePeer) {
  std::string levels = "0";
  for (int level = 1; level < 64; ++level) {
    levels += "," + std::to_string(level);
  }
  const auto up = bus_.payloads();
  ASSERT_EQ(up.size(), 3U);
  EXPECT_EQ(withoutId(up[0]), announcement("param", "true"));
  EXPECT_EQ(withoutId(up[1]),
            "[\"GET\", \"db\", 101, 0, 0]\n"
            R"({"param":{"objectName":["logicalSources","logicalDests"]}})");
  EXPECT_EQ(withoutId(up[2]), "[\"CMD\", \"route\", 101, 0, 0]\n{\"stat\":[{\"level\":[" + levels +
                                  R"(],"destRange":[0,4095]}],"userID":0})");

  point_.reset();
  removeAll();
  EXPECT_EQ(peerCount(), 0U);
  EXPECT_TRUE(link_->waitForHangUp());
  const auto down = bus_.payloads();
  ASSERT_EQ(down.size(), 5U);
  EXPECT_EQ(withoutId(down[3]), announcement("param", "false"));
  EXPECT_EQ(withoutId(down[4]), announcement("paramDelete", "false"));
}

TEST_F(RemoteValtorConnectionPointTest, RefusedAndMergedTemporariesLeaveTheLinkAlone) {
  bus_.clear();
  EXPECT_EQ(make(phyText(ScriptedNode("127.0.0.1"))), nullptr);
  {
    const auto resembling = make(phyText(node_));
    resembling->disconnect();
    dynamic_cast<RemoteValtorConnectionPoint&>(*resembling).releasePeer();
  }
  const auto lost = make(R"({"type":"tcp","ipAddress":"127.0.0.2","port":65536,"server":true})");
  EXPECT_EQ(lost->connect(), 0);
  EXPECT_EQ(log_.countContaining("RemoteValtorConnectionPoint router (r) stays down"), 1);
  EXPECT_EQ(put(node_), point_);
  EXPECT_TRUE(point_->isConnected());
  EXPECT_TRUE(peer()->isConnected());
  EXPECT_TRUE(bus_.payloads().empty());
}

TEST_F(RemoteValtorConnectionPointTest, ARefusedDescriptionSweepsInASetAndLeavesTheLinkInAnUpdate) {
  const std::string refused =
      R"({"param":{"connectionPoint":[{"type":"valtor","name":"router","uniqueID":"r","phy":[)" +
      phyText(ScriptedNode("127.0.0.1")) + "]}]}}";
  const auto request = [&](const std::string& kind) {
    ResponseList responses;
    return manager_->handleMessage(
        received("[\"" + kind + "\", \"device\", 490, 0, 0]\n" + refused), responses);
  };
  EXPECT_FALSE(request("UPDATE"));
  EXPECT_TRUE(point_->isConnected());
  EXPECT_TRUE(peer()->isConnected());
  EXPECT_TRUE(request("SET"));
  EXPECT_EQ(manager_->findConnectionPoint("r"), nullptr);
  EXPECT_FALSE(point_->isConnected());
}

TEST_F(RemoteValtorConnectionPointTest, FollowsARouterThatMoves) {
  ScriptedNode away("127.0.0.3");
  peer()->onMessage(received("[\"GET\", \"db\", 100, 0, 0]\n{\"id\":\"1@2.there\"}"));
  ASSERT_EQ(peer()->dbRequestHost(), "there");
  bus_.clear();
  const ConsoleCapture console;
  EXPECT_EQ(put(away), point_);
  EXPECT_TRUE(comesUp(*point_));
  EXPECT_TRUE(link_->waitForHangUp());
  EXPECT_NE(away.accept()->readFrame().find("login"), std::string::npos);
  EXPECT_EQ(peerCount(), 1U);
  // For the login's body, the login and the subscriptions.
  const std::string line = "DispatcherPeerClient needs ID\n";
  EXPECT_TRUE(console.contains(line + line + line));
  EXPECT_FALSE(console.contains(line + line + line + line));
  EXPECT_EQ(peer()->dbRequestHost(), "");
}

TEST_F(RemoteValtorConnectionPointTest, EveryMessageGoesToTheRoutersWhoseFilterPassesIt) {
  link_->readFrame();
  link_->readFrame();
  peer()->onMessage(received("[\"GET\", \"db\", 100, 0, 0]\n{\"id\":\"1@2.ours\"}"));
  // Blocked, so it is not the one that was forwarded last.
  peer()->onMessage(received("[\"GET\", \"db\", 2, 0, 0]\n{\"id\":\"1@2.theirs\"}"));
  const std::string taken =
      "[\"GET\", \"device\", 490, 0, 0]\n{\"id\":\"1@2.x\",\"objectName\":[ \"connectionPoint\" ]}";
  const std::string theirs = "[\"RSP\", \"db\", 100, 0, 0]\n{ \"id\":\"1@2.theirs\" }";
  const std::string ours = "[\"RSP\", \"db\", 100, 0, 0]\n{ \"id\":\"1@2.ours\", \"n\": 1.50 }";
  ResponseList responses;
  EXPECT_TRUE(manager_->handleMessage(received(taken), responses));
  EXPECT_FALSE(manager_->handleMessage(received(theirs), responses));
  EXPECT_FALSE(manager_->handleMessage(received(ours), responses));
  EXPECT_EQ(link_->readFrame(), taken);
  EXPECT_EQ(link_->readFrame(), ours);
}

}  // namespace
}  // namespace valtor::test
