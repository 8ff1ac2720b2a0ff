#include "peers/RemoteRouters.h"

namespace valtor::test {
namespace {

// A router whose link stands.
class RemoteValtorConnectionPointTest : public RemoteRouters {
 protected:
  void SetUp() override {
    point_ = put(node_);
    ASSERT_TRUE(comesUp(*point_));
    link_ = node_.accept();
  }

  std::shared_ptr<ConnectionPoint> point_;
  std::unique_ptr<ScriptedPeer> link_;
};

TEST_F(RemoteValtorConnectionPointTest, LinkUpAsksForWhatTheRouterNeedsAndRemovalTakesThePeer) {
  const auto announcement = [this](const std::string& key, const std::string& connected) {
    return notification(key, "connectionPoint",
                        R"({"type":"valtor","name":"router","uniqueID":"r","phy":[)" +
                            phyText(node_) + R"(],"enabled":true,"connected":)" + connected +
                            R"(,"showInUI":true})");
  };
  std::string levels = "0";
  for (int level = 1; level < 64; ++level) {
    levels += "," + std::to_string(level);
  }
  Payloads expected = {announcement("param", "true"),
                       "[\"GET\", \"db\", 101, 0, 0]\n"
                       R"({"param":{"objectName":["logicalSources","logicalDests"]}})",
                       "[\"CMD\", \"route\", 101, 0, 0]\n{\"stat\":[{\"level\":[" + levels +
                           R"(],"destRange":[0,4095]}],"userID":0})"};
  EXPECT_EQ(bus_.payloads(), expected);

  point_.reset();
  removeAll();
  EXPECT_EQ(peerCount(), 0U);
  EXPECT_TRUE(link_->waitForHangUp());
  expected.push_back(announcement("param", "false"));
  expected.push_back(announcement("paramDelete", "false"));
  EXPECT_EQ(bus_.payloads(), expected);
}

TEST_F(RemoteValtorConnectionPointTest, RefusedAndMergedTemporariesLeaveTheLinkAlone) {
  bus_.clear();
  EXPECT_EQ(make(R"({"type":"tcp","ipAddress":"127.0.0.1","port":1})"), nullptr);
  {
    const auto resembling = make(phyText(node_));
    resembling->disconnect();
    dynamic_cast<RemoteValtorConnectionPoint&>(*resembling).releasePeer();
  }
  EXPECT_EQ(put(node_), point_);
  EXPECT_TRUE(point_->isConnected());
  EXPECT_TRUE(peer()->isConnected());
  EXPECT_TRUE(bus_.payloads().empty());
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
  for (const int warnings : {1, 2}) {
    manager_->addOrUpdateConnectionPoint(make(R"({"type":"tcp","port":65536,"server":true})"));
    EXPECT_EQ(point_->connect(), 0);
    EXPECT_EQ(log_.countContaining("RemoteValtorConnectionPoint router (r) stays down"), warnings)
        << "once each time that it has no place";
    put(away);
  }
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
