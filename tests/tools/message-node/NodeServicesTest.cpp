#include <stdexcept>
#include <string>
#include <vector>

#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

using Payloads = std::vector<std::string>;

const char* const kAnswers =
    "{\"db\":{\"logicalSources\":[{\"id\":1}],\"logicalDests\":[]},"
    "\"route\":{\"stat\":{\"all\":true}}}";

class NodeServicesTest : public NodeFixture {};

TEST_F(NodeServicesTest, ALoginGivesTheConnectionItsNameIdAndInterface) {
  startNode();
  NodeClient client(node->port());
  ASSERT_TRUE(client.login("first", 101));
  ASSERT_TRUE(eventually([&] { return node->countEvents("LOGIN #1 name=first id=101") == 1; }));
  EXPECT_EQ((*node)->participants().at(0).interfaceText, "");
  ASSERT_TRUE(client.login("second", 102, ",\"interface\":[{\"type\": \"valtor\"}]"));
  const std::string line = "LOGIN #1 name=second id=102 interface=[{\"type\":\"valtor\"}]";
  ASSERT_TRUE(eventually([&] { return node->countEvents(line) == 1; }));
  const auto participants = (*node)->participants();
  ASSERT_EQ(participants.size(), 1U);
  EXPECT_EQ(participants[0].name, "second");
  EXPECT_EQ(participants[0].connID, 102);
  EXPECT_EQ(participants[0].messagesReceived, 2U);
}

TEST_F(NodeServicesTest, AKeepAliveIsAcknowledgedToItsSenderOnly) {
  startNode();
  join({"peerA", 10000, {}, false});
  join({"peerB", 10000, {"*"}, true});
  sendAndWait("peerA", "[\"SET\", \"\", 10000, 0, 0]\n{\"id\":\"7@1.aa\"}");
  EXPECT_EQ(received("peerA"), Payloads{"[\"ACK\", \"\", 1, 10000, 0]\n{\"id\":\"7@1.aa\"}"});
  EXPECT_EQ(received("peerB"), Payloads{});
  EXPECT_EQ(node->countPassed([](const PassedMessage& message) {
    return message.kind == MessageKind::ACK && message.source == MessageNode::kNodeConnID;
  }),
            1U);
}

TEST_F(NodeServicesTest, TheRoleIsAnsweredToWhoeverAsks) {
  MessageNode::Options options;
  options.role = "standby";
  startNode(std::move(options));
  join({"daemon", 101, {"system"}, true});
  const std::string request =
      "[\"GET\", \"system\", 101, 0, 0]\n"
      "{\"id\":\"5@2.bb\",\"param\":{\"objectName\":[\"mdxMasterState\"]}}";
  sendAndWait("daemon", request);
  EXPECT_EQ(received("daemon"),
            Payloads{"[\"RSP\", \"system\", 1, 101, 0]\n"
                     "{\"id\":\"5@2.bb\",\"param\":{\"mdxMasterState\":\"standby\"}}"});
  // Somebody without a login gets the answer on the connection that asked.
  NodeClient stranger(node->port());
  ASSERT_TRUE(
      stranger.send("[\"GET\", \"system\", 0, 0, 0]\n"
                    "{\"id\":\"6\",\"objectName\":[\"mdxMasterState\"]}"));
  EXPECT_EQ(stranger.receive(),
            "[\"RSP\", \"system\", 1, 0, 0]\n"
            "{\"id\":\"6\",\"param\":{\"mdxMasterState\":\"standby\"}}");
}

TEST_F(NodeServicesTest, ANewRoleIsAnnouncedOnSystem) {
  startNode();
  join({"daemon", 101, {"system"}, true});
  join({"other", 2, {"system.x"}, true});
  (*node)->setRole("standby");
  EXPECT_EQ((*node)->role(), "standby");
  const Payloads announced = received("daemon");
  ASSERT_EQ(announced.size(), 1U);
  EXPECT_EQ(announced[0].rfind("[\"SET\", \"system\", 1, 0, 0]\n"
                               "{\"param\":{\"mdxMasterState\":\"standby\"},\"id\":\"",
                               0),
            0U)
      << announced[0];
  EXPECT_EQ(received("other"), Payloads{});
}

TEST_F(NodeServicesTest, AParticipantMayAnnounceTheRole) {
  startNode();
  join({"panel", 490, {}, false});
  join({"daemon", 101, {"system"}, true});
  const std::string standby =
      "[\"SET\", \"system\", 490, 0, 0]\n{\"id\":\"1\",\"param\":{\"mdxMasterState\":\"standby\"}}";
  sendAndWait("panel", standby);
  EXPECT_EQ((*node)->role(), "standby");
  EXPECT_EQ(received("daemon"), Payloads{standby});
  // What is addressed to somebody else, or is no such message, leaves the role alone.
  for (const char* payload :
       {"[\"SET\", \"system\", 490, 100, 0]\n{\"param\":{\"mdxMasterState\":\"active\"}}",
        "[\"NOT\", \"system\", 490, 0, 0]\n{\"param\":{\"mdxMasterState\":\"active\"}}",
        "[\"SET\", \"system\", 490, 0, 0]\n{\"param\":{\"mdxMasterState\":7}}",
        "[\"SET\", \"device\", 490, 0, 0]\n{\"param\":{\"mdxMasterState\":\"active\"}}"}) {
    sendAndWait("panel", payload);
    EXPECT_EQ((*node)->role(), "standby") << payload;
  }
}

TEST_F(NodeServicesTest, CannedAnswersStandForParticipants) {
  MessageNode::Options options;
  options.answers = kAnswers;
  startNode(std::move(options));
  join({"daemon", 101, {}, false});
  struct Case {
    std::string request;
    Payloads answers;
  };
  const std::string ok = "\"statusCode\":200,\"statusMsg\":\"OK\",";
  const std::vector<Case> cases = {
      {"[\"GET\", \"db\", 101, 0, 0]\n{\"id\":\"1@a\",\"param\":"
       "{\"objectName\":[\"logicalSources\",7,\"unknown\",\"logicalDests\"]}}",
       {"[\"RSP\", \"db\", 100, 101, 0]\n{\"id\":\"1@a\",\"requestCommand\":\"GET\"," + ok +
        "\"param\":{\"logicalSources\":[{\"id\":1}],\"logicalDests\":[]}}"}},
      {"[\"CMD\", \"route\", 101, 0, 0]\n{\"id\":\"2@a\",\"stat\":[{}],\"userID\":0}",
       {"[\"RSP\", \"route\", 100, 101, 0]\n{\"id\":\"2@a\",\"requestCommand\":\"CMD\"," + ok +
        "\"param\":{\"stat\":{\"all\":true}}}"}},
      {"[\"GET\", \"db\", 101, 0, 0]\n{\"id\":\"3@a\",\"objectName\":[\"unknown\"]}", {}},
      {"[\"GET\", \"db\", 101, 55, 0]\n{\"id\":\"3@a\",\"objectName\":[\"logicalDests\"]}", {}},
      {"[\"CMD\", \"route\", 101, 0, 0]\n{\"id\":\"4@a\",\"take\":[{}]}", {}},
      {"[\"CMD\", \"route\", 101, 0, 0]\nno JSON", {}},
  };
  for (const Case& one : cases) {
    sendAndWait("daemon", one.request);
    EXPECT_EQ(received("daemon"), one.answers) << one.request;
  }
}

TEST(CannedAnswersTest, TextThatIsNoObjectIsRefused) {
  for (const char* text : {"[]", "nonsense", "7"}) {
    MessageNode::Options options;
    options.answers = text;
    EXPECT_THROW(MessageNode node(std::move(options)), std::runtime_error) << text;
  }
}

}  // namespace
}  // namespace valtor::test
