#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

using NodeServicesTest = NodeFixture;

TEST_F(NodeServicesTest, AKeepAliveIsAcknowledgedToItsSenderOnly) {
  join("peerA", 10000, {});
  join("peerB", 10000, {""}, true);
  say("peerA", "[\"SET\", \"\", 10000, 0, 0]\n{\"id\":\"7@1.aa\"}");
  EXPECT_EQ(received("peerA"), Payloads{"[\"ACK\", \"\", 1, 10000, 0]\n{\"id\":\"7@1.aa\"}"});
  EXPECT_EQ(received("peerB"), Payloads{});
  EXPECT_EQ(node->countPassed([](const PassedMessage& message) {
    return message.kind == MessageKind::ACK && message.source == MessageNode::kNodeConnID;
  }),
            1U);
}

TEST_F(NodeServicesTest, TheRoleIsAnsweredToWhoeverAsksAndAnnounced) {
  join("daemon", 101, {"system"}, true);
  (*node)->setRole("standby");
  const std::string announced = received("daemon").at(0);
  EXPECT_EQ(announced.rfind("[\"SET\", \"system\", 1, 0, 0]\n{\"id\":\"", 0), 0U);
  EXPECT_NE(announced.find(",\"param\":{\"mdxMasterState\":\"standby\"}}"), std::string::npos);
  const std::string request = "{\"id\":\"5\",\"param\":{\"objectName\":[\"mdxMasterState\"]}}";
  const std::string answer = "{\"id\":\"5\",\"param\":{\"mdxMasterState\":\"standby\"}}";
  say("daemon", "[\"GET\", \"system\", 101, 0, 0]\n" + request);
  EXPECT_EQ(received("daemon"), Payloads{"[\"RSP\", \"system\", 1, 101, 0]\n" + answer});
  // Somebody without a login gets the answer on the connection that asked.
  const auto stranger = connectTo(node->port());
  stranger->sendPayload("[\"GET\", \"system\", 0, 0, 0]\n" + request);
  EXPECT_EQ(stranger->readFrame(), "[\"RSP\", \"system\", 1, 0, 0]\n" + answer);
}

TEST_F(NodeServicesTest, CannedAnswersStandForParticipants) {
  MessageNode::Options options;
  options.answers = R"({"db":{"dests":[1],"sources":[]}})";
  node = std::make_unique<RunningNode>(std::move(options));
  join("daemon", 101, {});
  say("daemon",
      "[\"GET\", \"db\", 101, 0, 0]\n{\"id\":\"1\",\"objectName\":[\"dests\",7,\"unknown\"]}");
  EXPECT_EQ(
      received("daemon"),
      Payloads{
          "[\"RSP\", \"db\", 100, 101, 0]\n"
          R"({"id":"1","requestCommand":"GET","statusCode":200,"statusMsg":"OK","param":{"dests":[1]}})"});
  // Nobody answers to what is not known, or is for somebody else.
  say("daemon", "[\"GET\", \"db\", 101, 0, 0]\n{\"objectName\":[\"unknown\"]}");
  say("daemon", "[\"GET\", \"db\", 101, 55, 0]\n{\"objectName\":[\"dests\"]}");
  EXPECT_EQ(received("daemon"), Payloads{});
}

TEST_F(NodeServicesTest, PausedOrClosedConnectionsLoseNothingAndComeBack) {
  ScriptedPeer& client = join("client", 1, {"db"});
  (*node)->setWritingPaused("client", true);
  ASSERT_TRUE((*node)->inject(2, "NOT", "db", 0, "{}"));
  EXPECT_EQ((*node)->participants().at(0).unsentBytes, 29U);
  (*node)->setWritingPaused("client", false);
  EXPECT_EQ(received("client"), Payloads{"[\"NOT\", \"db\", 2, 0, 0]\n{}"});
  (*node)->stopListening();
  EXPECT_EQ((*node)->closeConnections("client"), 1U);
  EXPECT_TRUE(client.waitForHangUp());
  const uint16_t port = node->port();
  EXPECT_EQ(connectTo(port), nullptr);
  ASSERT_FALSE((*node)->startListening());
  EXPECT_NE(connectTo(port), nullptr);
}

}  // namespace
}  // namespace valtor::test
