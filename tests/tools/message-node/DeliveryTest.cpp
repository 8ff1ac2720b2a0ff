#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "bus/PellInternalStreamParser.h"
#include "message-node/Subscriptions.h"
#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

using Names = std::vector<std::string>;

class DeliveryTest : public NodeFixture {
 protected:
  // Who got the payload, once for every time.
  Names recipients(const std::string& payload) {
    Names names;
    for (const auto& [name, client] : clients) {
      for (const std::string& got : received(name)) {
        EXPECT_EQ(got, payload);
        names.push_back(name);
      }
    }
    return names;
  }
};

TEST_F(DeliveryTest, GoesWhereDestinationAndSubscriptionsSay) {
  startNode();
  join({"daemon", 101, {"device", "db", "system", "route"}, true});
  join({"panel", 490, {"device", "dev*", "route"}, false});
  join({"peerA", 10000, {"controller*"}, false});
  join({"peerB", 10000, {"controller"}, true});
  join({"router", 100, {}, false});

  struct Case {
    const char* what;
    std::string from;
    std::string path;
    int destination;
    Names to;
  };
  const std::vector<Case> cases = {
      {"a path with subscribers", "router", "db", 0, {"daemon"}},
      {"two entries cover the path", "daemon", "device", 0, {"panel"}},
      {"not back to its sender", "panel", "route", 0, {"daemon"}},
      {"a star covers the bare word", "panel", "controller", 0, {"peerA", "peerB"}},
      {"a star covers what follows", "panel", "controllerState.a", 0, {"peerA"}},
      {"a literal covers nothing longer", "panel", "db.x", 0, {}},
      {"an addressee, whatever the path", "panel", "nobody", 100, {"router"}},
      {"an addressee and who receives all", "router", "device", 490, {"daemon", "panel"}},
      {"all that share an id", "daemon", "tally", 10000, {"peerA", "peerB"}},
      {"shared with the sender", "peerA", "tally", 10000, {"peerB"}},
      {"nobody has the id", "panel", "route", 77, {"daemon"}},
      {"nobody has the id nor receives all", "daemon", "route", 77, {}},
      {"the addressee receives all too", "panel", "route", 101, {"daemon"}},
      {"addressed to its own sender", "panel", "device", 490, {"daemon"}},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.what);
    const std::string payload = "[\"NOT\", \"" + one.path + "\", 5, " +
                                std::to_string(one.destination) + ", 0]\n{\"id\":\"" + one.what +
                                "\"}";
    sendAndWait(one.from, payload);
    EXPECT_EQ(recipients(payload), one.to);
    const auto passed = node->passed();
    ASSERT_GE(passed.size(), 1U);
    const auto record = std::find_if(passed.begin(), passed.end(), [&](const auto& message) {
      return *message.payload == payload;
    });
    ASSERT_NE(record, passed.end());
    Names to = record->to;
    std::sort(to.begin(), to.end());
    EXPECT_EQ(to, one.to);
    EXPECT_EQ(record->from, one.from);
  }
}

TEST_F(DeliveryTest, HandsOnTheBytesThatCame) {
  startNode();
  join({"panel", 490, {}, false});
  join({"router", 100, {"route"}, false});
  const std::vector<std::string> payloads = {
      "[\"CMD\",\"route\" , 490,0]\n{ \"id\" : \"1@p\",\n\t\"n\": 12345678901234567890, "
      "\"x\":1.0e2 }",
      "[\"CMD\", \"route\", \"490@panel\", 0, \"2030-01-01T00:00:00\"]\n{\"id\":\"2@p\"} ;:",
      "[\"NOT\", \"route\", 490, 0, 0]\n",
      "[\"NOT\", \"route\", 490, 0, 0]\nno JSON: \xff\xfe",
  };
  for (const std::string& payload : payloads) {
    sendAndWait("panel", payload);
    EXPECT_EQ(received("router"), Names{payload});
  }
}

TEST_F(DeliveryTest, KeepsTheLargestMessageWholeAndInOrder) {
  startNode();
  NodeClient& panel = join({"panel", 490, {}, false});
  join({"router", 100, {"route"}, false});
  std::string large = "[\"CMD\", \"route\", 490, 0, 0]\n{\"id\":\"";
  large.resize(PellInternalStreamParser::kMaxPayload - 2, 'a');
  large += "\"}";
  const std::string small = "[\"CMD\", \"route\", 490, 0, 0]\n{\"id\":\"small\"}";
  ASSERT_TRUE(panel.send(large));
  sendAndWait("panel", small);
  EXPECT_TRUE(received("router") == (Names{large, small}));
}

TEST_F(DeliveryTest, AnInjectedMessageReachesEveryoneWhoWouldGetIt) {
  startNode();
  join({"panel", 490, {"device"}, false});
  join({"daemon", 101, {"device"}, true});
  EXPECT_TRUE((*node)->inject(490, "GET", "device", 0, "{\"id\":\"1@p\"}"));
  const std::string expected = "[\"GET\", \"device\", 490, 0, 0]\n{\"id\":\"1@p\"}";
  EXPECT_EQ(recipients(expected), (Names{"daemon", "panel"}));
  EXPECT_FALSE((*node)->inject(490, "get", "device", 0, "{}"));
  EXPECT_FALSE((*node)->inject(-1, "GET", "device", 0, "{}"));
  EXPECT_FALSE((*node)->injectPayload("no header"));
  EXPECT_EQ(recipients(expected), Names{});
}

TEST(SubscriptionsTest, AStarCoversEverythingThatBeginsLikeIt) {
  Subscriptions list;
  list.add({"device*", false});
  list.add({"db", true});
  const std::map<std::string, std::pair<bool, bool>> expected = {
      {"device", {true, false}}, {"device.d1", {true, false}}, {"devices", {true, false}},
      {"devic", {false, false}}, {"", {false, false}},         {"db", {true, true}},
      {"db.x", {false, false}},  {"DB", {false, false}},       {"device*", {true, false}},
  };
  for (const auto& [path, covered] : expected) {
    EXPECT_EQ(list.covers(path), covered.first) << path;
    EXPECT_EQ(list.coversForOthers(path), covered.second) << path;
  }
  list.add({"*", false});
  EXPECT_TRUE(list.covers(""));
  EXPECT_TRUE(list.covers("anything"));
  EXPECT_FALSE(list.coversForOthers("anything"));
}

TEST(SubscriptionsTest, AListedPathTakesTheNewFlag) {
  Subscriptions list;
  list.add({"db", true});
  list.add({"db", false});
  EXPECT_EQ(list.entries().size(), 1U);
  EXPECT_FALSE(list.coversForOthers("db"));
}

}  // namespace
}  // namespace valtor::test
