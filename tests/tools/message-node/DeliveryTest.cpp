#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

using DeliveryTest = NodeFixture;

TEST_F(DeliveryTest, GoesWhereDestinationAndSubscriptionsSay) {
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

TEST_F(DeliveryTest, AConnectionThatDoesNotReadIsClosedAtTheLimit) {
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

}  // namespace
}  // namespace valtor::test
