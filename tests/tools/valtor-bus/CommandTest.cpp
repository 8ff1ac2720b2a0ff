#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "message-node/RunningNode.h"
#include "support/Eventually.h"
#include "tools/ChildProcess.h"

namespace valtor::test {
namespace {

using Texts = std::vector<std::string>;

// The real executable against a node whose other participants are played by the test.
class ValtorBusTest : public ::testing::Test {
 protected:
  std::unique_ptr<ChildProcess> start(Texts arguments, const std::string& input = "") {
    arguments.insert(arguments.end(), {"--port", std::to_string(node.port())});
    auto tool = std::make_unique<ChildProcess>("exec " VALTOR_BUS_EXECUTABLE " \"$@\" >out 2>err",
                                               arguments);
    tool->say(input);
    tool->endInput();
    return tool;
  }

  // Waits until commands that stay have subscribed so often.
  void waitForSubscriptions(std::size_t count) {
    ASSERT_TRUE(eventually([&] { return node.countEvents("SUBSCRIBE") >= count; }));
  }

  // The next message that a tool sent after its login, keep-alives aside.
  PassedMessage nextSent() {
    EXPECT_TRUE(eventually([&] {
      const auto all = node.passed();
      while (looked < all.size()) {
        last = all[looked++];
        if (last.from == "valtor-bus" && last.path != "system.connection" && !last.path.empty()) {
          return true;
        }
      }
      return false;
    }));
    return last;
  }

  // The kind of the last message, and its body behind its identifier.
  std::string sent() const {
    const auto body = last.body();
    return kindName(last.kind) + std::string(" ").append(body.substr(body.find(',') + 1));
  }

  // Answers a tool's next message as connection 101; the text stands behind the identifier.
  void answerNext(const std::string& text) {
    const PassedMessage sent = nextSent();
    const std::string identifier(sent.body().substr(0, sent.body().find(',')));
    node->inject(101, "RSP", sent.path, sent.source, identifier + "," + text + "}");
  }

  RunningNode node;
  std::size_t looked = 0;
  PassedMessage last;
};

TEST_F(ValtorBusTest, WatchShowsWhatTheFiltersLetThroughAndComesBackAfterALoss) {
  const auto watch = start({"watch", "--path", "dev*", "--kind", "not", "--kind", "SET", "--from",
                            "101-102", "--to", "0,7", "--count", "2"});
  waitForSubscriptions(1);
  node->writeRaw("valtor-bus", "0:;");  // what the parser prints about it is no data
  node->inject(101, "NOT", "device", 0, "{\"n\":\n12345678901234567890}");
  node->inject(103, "NOT", "device", 0, "{}");
  node->inject(101, "GET", "device", 0, "{}");
  node->inject(101, "NOT", "device", 9, "{}");
  ASSERT_TRUE(eventually([&] { return watch->out().find('\n') != std::string::npos; }));
  node->closeConnections("valtor-bus");
  waitForSubscriptions(2);
  node->inject(102, "SET", "device.a", 7, "{\"m\":\"\x1b[2J\"}");
  EXPECT_EQ(watch->wait(), 0);
  const std::string out = watch->out();
  const std::size_t second = out.find('\n') + 1;
  EXPECT_EQ(out.substr(12, second - 12), " NOT    device 101->0 {\"n\": 12345678901234567890}\n");
  EXPECT_EQ(out.substr(second + 12), " SET    device.a 102->7 {\"m\":\" [2J\"}\n");
  EXPECT_NE(watch->err().find("lost: the node hung up; trying again"), std::string::npos);
}

TEST_F(ValtorBusTest, WatchPrintsForScriptsAndFailsWhenTooLittleCame) {
  const auto json = start({"watch", "--json", "--count", "1"});
  const auto raw = start({"watch", "--raw", "--count", "1"});
  waitForSubscriptions(2);
  node->injectPayload("[\"NOT\",\"a\",\"0x10@x\",0 ]\n{ \"n\" : 1.00 } ");
  EXPECT_EQ(json->wait() + raw->wait(), 0);
  EXPECT_EQ(json->out().substr(json->out().find(",\"kind\"")),
            R"(,"kind":"NOT","path":"a","source":16,"sourceName":"x","destination":0,)"
            "\"body\":{\"n\":1.00}}\n");
  EXPECT_EQ(raw->out(), "[\"NOT\",\"a\",\"0x10@x\",0 ]\n{ \"n\" : 1.00 } \n");
  EXPECT_EQ(start({"watch", "--count", "1", "--timeout", "0.1"})->wait(), 1);
}

TEST_F(ValtorBusTest, GetCollectsTheAnswersAndReportsARefusal) {
  const auto get = start({"get", "a", "b", "--timeout", "60"});
  answerNext("\"param\":{\"b\":[1]}");
  EXPECT_EQ(sent(), R"(GET "param":{"objectName":["a","b"]},"objectName":["a","b"]})");
  node->inject(101, "RSP", "device", last.source, R"({"id":"other","param":{"a":0}})");
  node->inject(101, "RSP", "device", last.source,
               std::string(last.body().substr(0, last.body().find(','))) + ",\"param\":{\"a\":2}}");
  EXPECT_EQ(get->wait(), 0);
  EXPECT_EQ(get->out(), "{\n\t\"b\":\t[1],\n\t\"a\":\t2\n}\n");
  const auto refused = start({"get", "a", "--timeout", "60"});
  answerNext("\"statusCode\":404,\"statusMsg\":\"Not Found\"");
  EXPECT_EQ(refused->wait(), 1);
  EXPECT_EQ(refused->err(),
            "valtor-bus: GET on \"device\" was refused by connection 101: 404 Not Found\n");
}

TEST_F(ValtorBusTest, ChangesAndRoutesCarryTheirBodiesAndPrintTheAnswer) {
  const std::string ok = R"("statusCode":200)";
  const struct {
    Texts arguments;
    std::string sent, answer, out;
  } cases[] = {
      {{"set", R"({"a": 12345678901234567890})"},
       R"(SET "param":{"a":12345678901234567890}})",
       ok,
       "200\n"},
      {{"update", "a=1", "b=x y"},
       R"(UPDATE "param":{"a":1,"b":"x y"}})",
       R"("statusCode":201,"statusMsg":"Created")",
       "201 Created\n"},
      {{"set", "-"}, R"(SET "param":{"from":"input"}})", R"("x":1)", "RSP\n"},
      {{"del", "--base", "point", "a", "b"},
       R"(DEL "objectBase":"point","objectName":["a","b"]})",
       ok,
       "200\n"},
      {{"route", "take", "--dest", "1-2", "--level", "0,2-3", "--source", "7,8,9"},
       R"(CMD "take":[{"level":[0,2,3],"status":[[1,[7,8,9]],[2,[7,8,9]]]}],"userID":0})",
       ok,
       "200\n"},
      {{"route", "query", "--dest", "2,5,1", "--level", "0-1"},
       R"(CMD "stat":[{"level":[0,1],"destRange":[1,2]},{"level":[0,1],"destRange":[5,5]}],"userID":0})",
       R"("param":{"stat":[{"level":[0,1],"status":[[1,[7]],[2,[8,9]],[5,[3]]]}]})",
       "destination 1 level 0 source 7\ndestination 1 level 1 source 7\n"
       "destination 2 level 0 source 8\ndestination 2 level 1 source 9\n"
       "destination 5 level 0 source 3\ndestination 5 level 1 source 3\n"},
  };
  for (const auto& one : cases) {
    Texts arguments = one.arguments;
    arguments.insert(arguments.end(), {"--timeout", "60"});
    const auto tool = start(arguments, R"({"from":"input"})");
    answerNext(one.answer);
    EXPECT_EQ(sent(), one.sent);
    EXPECT_EQ(tool->wait(), 0);
    EXPECT_EQ(tool->out(), one.out);
  }
  EXPECT_EQ(start({"send", "NOT", "device", "{\"id\":\"mine\"}", "--dest", "5"})->wait(), 0);
  EXPECT_EQ(nextSent().destination, 5);
  EXPECT_EQ(last.body(), "{\"id\":\"mine\"}");
}

std::string point(const std::string& uniqueID, bool connected) {
  return R"({"type":"valtor","name":"router","uniqueID":")" + uniqueID +
         R"(","phy":[{"type":"tcp","ipAddress":"127.0.0.2","port":15000}],"enabled":true,)" +
         "\"connected\":" + (connected ? "true}" : "false}");
}

TEST_F(ValtorBusTest, StatusChecksAndFollowsTheConnectionPoints) {
  const auto check = start({"status", "--check", "--timeout", "60"});
  answerNext(R"("param":{"serverConnectionPoint":[)" + point("r1", true) + "]}");
  answerNext(R"("param":{"connectionPoint":[)" + point("r2", false) + "]}");
  EXPECT_EQ(check->wait(), 1);
  EXPECT_EQ(check->out(),
            "CRITICAL: 1 of 2 enabled connection points connected; "
            "down: router (127.0.0.2:15000)\n");
  const auto silent = start({"status", "--check", "--timeout", "0.1"});
  EXPECT_EQ(silent->wait(), 1);
  EXPECT_EQ(silent->out().rfind("UNKNOWN: no answer to GET on \"device\"", 0), 0U);
  nextSent();
  nextSent();

  const auto watch = start({"status", "--watch", "--timeout", "60"});
  nextSent();  // who has no server connection points does not answer this one
  answerNext(R"("param":{"connectionPoint":[)" + point("r1", true) + "]}");
  const auto shows = [&](const std::string& text) {
    return eventually([&] { return watch->out().find(text) != std::string::npos; });
  };
  EXPECT_TRUE(
      shows("NAME    UNIQUE ID  TYPE    ADDRESS          ENABLED  CONNECTED  SINCE\n"
            "router  r1         valtor  127.0.0.2:15000  yes      yes        -\n"));
  const std::string change = "{\"connectionPoint\":[" + point("r1", false) + "]}}";
  node->inject(101, "NOT", "device", 0, "{\"param\":" + change);
  EXPECT_TRUE(shows("yes      no         "));
  EXPECT_FALSE(watch->out().find("no         -") != std::string::npos);
  node->inject(101, "NOT", "device", 0, "{\"paramDelete\":" + change);
  EXPECT_TRUE(shows("\n\nNAME  UNIQUE ID  TYPE  ADDRESS  ENABLED  CONNECTED  SINCE\n"));
  watch->signal(SIGINT);
  EXPECT_EQ(watch->wait(), 0);
}

TEST_F(ValtorBusTest, AReplaySendsTheRecordedBytes) {
  const TemporaryFolder folder;
  const std::string file = folder.at("recording");
  const Texts payloads = {"[\"NOT\",\"a\" , 3,0,0]\n{ \"n\": 1.0 }",
                          "[\"GET\", \"b\", 4, 5]\n\xff"};
  const auto recorder = start({"record", file});
  waitForSubscriptions(1);
  ASSERT_TRUE(node->injectPayload(payloads[0]) && node->injectPayload(payloads[1]));
  ASSERT_TRUE(eventually([&] { return fileContent(file).find("hex") != std::string::npos; }));
  recorder->signal(SIGINT);
  EXPECT_EQ(recorder->wait(), 0);
  const std::string login = R"({"offset":9,"payload":"[\"SET\",\"system.connection\",1,0]\n"})";
  folder.write("recording", fileContent(file) + login);
  for (const Texts& options : {Texts{"--no-timing"}, Texts{"--speed=1000"}}) {
    node.forget();
    const auto replay = start({"replay", file, options[0]});
    EXPECT_EQ(replay->wait(), 0);
    EXPECT_NE(replay->err().find("replayed 2 messages"), std::string::npos);
    // Before them the replayer's own login, behind them its last keep-alive and the answer.
    ASSERT_EQ(node.passed().size(), 5U);
    EXPECT_EQ(*node.passed()[1].payload, payloads[0]);
    EXPECT_EQ(*node.passed()[2].payload, payloads[1]);
  }
}

TEST_F(ValtorBusTest, WrongUsageAndAMissingNodeAreToldApart) {
  for (const Texts& wrong :
       std::vector<Texts>{{},
                          {"frob"},
                          {"watch", "--kind", "no"},
                          {"watch", "--json", "--raw"},
                          {"set", "no pair"},
                          {"send", "GET", "a\"b"},
                          {"send", "GET", std::string(250, 'a')},
                          {"send", "GET", "a", "[]"},
                          {"get", "a", "--timeout", "-1"},
                          {"route", "take", "--dest", "2-1", "--source", "1"},
                          {"route", "take", "--dest", "1", "--level", "0-2", "--source", "1,2"}}) {
    const auto tool = start(wrong);
    EXPECT_EQ(tool->wait(), 2) << ::testing::PrintToString(wrong) << tool->err();
    EXPECT_TRUE(tool->out().empty() && !tool->err().empty());
  }
  node->stopListening();
  const auto alone = start({"watch"});
  EXPECT_EQ(alone->wait(), 1);
  EXPECT_NE(alone->err().find(": Connection refused\n  Is a message node"), std::string::npos);
}

TEST_F(ValtorBusTest, EveryOptionIsInTheCompletionAndOnTheManPage) {
  const std::string page = fileContent(VALTOR_BUS_MAN_PAGE);
  for (const std::string command : {"", "watch", "get", "set", "update", "del", "send", "status",
                                    "route take", "route query", "record", "replay"}) {
    ChildProcess completion("source " VALTOR_BUS_COMPLETION "; COMP_WORDS=(x " + command +
                            " --); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _valtor_bus; "
                            "echo \" ${COMPREPLY[*]} \" >out");
    ChildProcess help(VALTOR_BUS_EXECUTABLE " " + command +
                      " --help | sed -n 's/^  .*\\(--[a-z-]*\\) .*/\\1/p; /^Examples/q' >out");
    EXPECT_EQ(completion.wait() + help.wait(), 0);
    std::istringstream options(help.out());
    for (std::string option; std::getline(options, option);) {
      EXPECT_NE(completion.out().find(" " + option + " "), std::string::npos) << command << option;
      EXPECT_NE(page.find("Fl -" + option.substr(2)), std::string::npos) << option;
    }
    EXPECT_NE(help.out().find("--help"), std::string::npos);
  }
}

}  // namespace
}  // namespace valtor::test
