#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

using NodeTest = NodeFixture;

TEST_F(NodeTest, GoesWhereDestinationAndSubscriptionsSay) {
  join("daemon", 101, {"device", "db", "system", "route"}, true);
  join("panel", 490, {"device", "dev*", "route"});
  join("peerA", 10000, {"controller*"});
  join("peerB", 10000, {"controller"}, true);
  join("router", 100, {});
  const struct {
    const char* what;
    const char* from;
    const char* path;
    int destination;
    std::string to;
  } cases[] = {
      {"a path with subscribers", "router", "db", 0, "daemon "},
      {"two entries cover the path", "daemon", "device", 0, "panel "},
      {"not back to its sender", "panel", "route", 0, "daemon "},
      {"a star covers the bare word", "panel", "controller", 0, "peerA peerB "},
      {"a star covers what follows", "panel", "controllerState.a", 0, "peerA "},
      {"a literal covers nothing longer", "panel", "db.x", 0, ""},
      {"an addressee, whatever the path", "panel", "nobody", 100, "router "},
      {"an addressee and who receives all", "router", "device", 490, "daemon panel "},
      {"all that share an id", "daemon", "tally", 10000, "peerA peerB "},
      {"shared with the sender", "peerA", "tally", 10000, "peerB "},
      {"nobody has the id", "panel", "route", 77, "daemon "},
      {"the addressee receives all too", "panel", "route", 101, "daemon "},
      {"addressed to its own sender", "panel", "device", 490, "daemon "},
  };
  for (const auto& [what, from, path, destination, to] : cases) {
    const std::string payload = std::string("[\"NOT\", \"") + path + "\", 5, " +
                                std::to_string(destination) + ", 0]\n{\"id\":\"" + what + "\"}";
    say(from, payload);
    std::string recipients;  // each once for every time
    for (const auto& [name, peer] : peers) {
      for (const std::string& got : received(name)) {
        EXPECT_EQ(got, payload);
        recipients += name + " ";
      }
    }
    EXPECT_EQ(recipients, to) << what;
  }
}

TEST_F(NodeTest, AConnectionThatDoesNotReadIsClosedAtTheLimit) {
  MessageNode::Options options;
  options.unsentLimit = 100'000;
  node = std::make_unique<RunningNode>(std::move(options));
  ScriptedPeer& slow = join("slow", 2, {"db"});
  join("quick", 3, {"route"});
  // More than socket buffers hold; every message alone is below the limit.
  const std::string body = "{\"id\":\"" + std::string(50'000, 'a') + "\"}";
  for (int i = 0; i < 1000 && node->countEvents("CLOSE") == 0; ++i) {
    ASSERT_TRUE((*node)->inject(100, "NOT", "db", 0, body));
  }
  EXPECT_EQ(node->countEvents(" unsent bytes pass the limit of 100000"), 1U);
  EXPECT_TRUE(slow.waitForHangUp());
  ASSERT_TRUE((*node)->inject(100, "NOT", "route", 0, "{}"));
  EXPECT_EQ(received("quick"), Payloads{"[\"NOT\", \"route\", 100, 0, 0]\n{}"});
}

TEST_F(NodeTest, AKeepAliveIsAcknowledgedToItsSenderOnly) {
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

TEST_F(NodeTest, TheRoleIsAnsweredToWhoeverAsksAndAnnounced) {
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

TEST_F(NodeTest, CannedAnswersStandForParticipants) {
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

}  // namespace
}  // namespace valtor::test
