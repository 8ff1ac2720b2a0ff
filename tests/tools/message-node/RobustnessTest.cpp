#include <string>
#include <syslog.h>
#include <vector>

#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"
#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

class RobustnessTest : public NodeFixture {
 protected:
  std::size_t unsentTo(const std::string& name) {
    for (const NodeParticipant& one : (*node)->participants()) {
      if (one.name == name) {
        return one.unsentBytes;
      }
    }
    return 0;
  }
};

TEST_F(RobustnessTest, BrokenFramesAreReportedAndTheNextGoodOneIsRead) {
  struct Case {
    const char* what;
    std::string bytes;
    const char* report;
  };
  const std::vector<Case> cases = {
      {"a header that is an object", "5:{}\nab;", "Bad Header"},
      {"no header line", "3:[1];", "Bad Header"},
      {"a path that is a number", "19:[\"NOT\", 5, 1, 0]\n{};", "Bad Header"},
      {"a kind nobody knows", "20:[\"get\", \"db\", 1, 0]\n;", "Bad Header"},
      {"a negative connection id", "23:[\"NOT\", \"db\", -1, 0]\n{};", "Bad Header"},
      {"length zero", "0:;", "invalid header length"},
      {"no length", ":;", "invalid header length"},
      {"a length above the limit", "20000001:;", "length exceeds"},
      {"a wrong footer", "2:ab,", "invalid message footer"},
      {"NUL bytes", std::string("4:\0\0\n\0;", 7), "Bad Header"},
  };
  const LogCapture log;
  const ConsoleCapture console;
  startNode();
  NodeClient& sender = join({"sender", 2, {}, false});
  join({"reader", 3, {"db"}, false});
  int round = 0;
  for (const Case& one : cases) {
    SCOPED_TRACE(one.what);
    const int before = log.countContaining(one.report);
    ASSERT_TRUE(sender.write(one.bytes));
    const std::string good =
        "[\"NOT\", \"db\", 2, 0, 0]\n{\"id\":\"" + std::to_string(++round) + "\"}";
    sendAndWait("sender", good);
    EXPECT_EQ(received("reader"), std::vector<std::string>{good});
    EXPECT_EQ(log.countContaining(one.report), before + 1);
  }
}

TEST_F(RobustnessTest, OddSettingsOfAConnectionAreSurvived) {
  startNode();
  NodeClient& client = join({"odd", 2, {"db"}, false});
  for (const char* body :
       {"", "null", "[]", "{\"param\":7}", "{\"param\":{\"subscribeList\":7}}",
        "{\"param\":{\"subscribeList\":[7,{},{\"path\":7},{\"path\":\"ok\"}]}}"}) {
    ASSERT_TRUE(client.send(std::string("[\"SET\", \"system.connection\", 2, 0, 0]\n") + body));
  }
  ASSERT_TRUE(eventually([&] { return subscriptionsOf("odd") == 3; }));
  ASSERT_TRUE(
      client.send("[\"SET\", \"system.connection\", 2, 0, 0]\n"
                  "{\"param\":{\"login\":{\"name\":7,\"connID\":\"x\"}}}"));
  ASSERT_TRUE(eventually([&] { return (*node)->participants().at(0).name.empty(); }));
  EXPECT_EQ((*node)->participants().at(0).connID, 0);
}

TEST_F(RobustnessTest, AConnectionThatDoesNotReadIsClosedAtTheLimit) {
  MessageNode::Options options;
  options.unsentLimit = 100'000;
  startNode(std::move(options));
  NodeClient& slow = join({"slow", 2, {"db"}, false});
  join({"quick", 3, {"route"}, false});
  // More than socket buffers hold; every message alone is below the limit.
  const std::string body = "{\"id\":\"" + std::string(50'000, 'a') + "\"}";
  for (int i = 0; i < 1000 && node->countEvents("CLOSE") == 0; ++i) {
    ASSERT_TRUE((*node)->inject(100, "NOT", "db", 0, body));
  }
  EXPECT_EQ(node->countEvents("name=slow"), 4U) << "login, two paths, closing";
  EXPECT_EQ(node->countEvents(" unsent bytes pass the limit of 100000"), 1U);
  EXPECT_NE(slow.waitForEnd(), NodeClient::End::TimedOut);
  ASSERT_TRUE((*node)->inject(100, "NOT", "route", 0, "{}"));
  EXPECT_EQ(received("quick"), std::vector<std::string>{"[\"NOT\", \"route\", 100, 0, 0]\n{}"});
}

TEST_F(RobustnessTest, ASlowReaderBelowTheLimitGetsEverything) {
  startNode();
  join({"slow", 2, {"db"}, false});
  const std::string body = "{\"id\":\"" + std::string(1'000'000, 'a') + "\"}";
  std::vector<std::string> expected;
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE((*node)->inject(i, "NOT", "db", 0, body));
    expected.push_back("[\"NOT\", \"db\", " + std::to_string(i) + ", 0, 0]\n" + body);
  }
  EXPECT_GT(unsentTo("slow"), 0U);
  EXPECT_TRUE(received("slow") == expected);
  EXPECT_TRUE(eventually([&] { return unsentTo("slow") == 0; }));
}

}  // namespace
}  // namespace valtor::test
