#include <sstream>

#include "tools/valtor-bus/ToolFixture.h"

namespace valtor::test {
namespace {

using ValtorBusTest = ToolFixture;

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

std::string point(const std::string& uniqueID, bool connected) {
  return R"({"type":"valtor","name":"router","uniqueID":")" + uniqueID +
         R"(","phy":[{"type":"tcp","ipAddress":"127.0.0.2","port":15000}],"enabled":true,)" +
         "\"connected\":" + (connected ? "true}" : "false}");
}

TEST_F(ValtorBusTest, StatusChecksAndFollowsTheConnectionPoints) {
  const auto check = start({"status", "--check", "--timeout", "60"});
  answerNext("device", {R"("param":{"serverConnectionPoint":[)" + point("r1", true) + "]}"});
  answerNext("device", {R"("param":{"connectionPoint":[)" + point("r2", false) + "]}"});
  EXPECT_EQ(check->wait(), 1);
  EXPECT_EQ(check->out(),
            "CRITICAL: 1 of 2 enabled connection points connected; "
            "down: router (127.0.0.2:15000)\n");
  const auto silent = start({"status", "--check", "--timeout", "0.1"});
  EXPECT_EQ(silent->wait(), 1);
  EXPECT_EQ(silent->out().rfind("UNKNOWN: no answer to GET on \"device\"", 0), 0U);
  nextSent("device");
  nextSent("device");

  const auto watch = start({"status", "--watch", "--timeout", "60"});
  nextSent("device");  // who has no server connection points does not answer this one
  answerNext("device", {R"("param":{"connectionPoint":[)" + point("r1", true) + "]}"});
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

TEST_F(ValtorBusTest, ARecordingIsReplayedByteByByteUpToWhereItWasCut) {
  const TemporaryFolder folder;
  const std::string file = folder.at("recording");
  const Texts payloads = {"[\"NOT\",\"a\" , 3,0,0]\n{ \"n\": 1.0 }", "[\"NOT\", \"b\", 4, 5]\n\xff",
                          "[\"NOT\",\"c\",3,0,0]\n" + std::string(2000, 'x')};
  const auto recorder = start({"record", folder.at("all")});
  const auto limited =  // to 1 KiB
      start({"record", file}, "", "trap '' XFSZ; ulimit -f 1; exec \"$@\"");
  waitForSubscriptions(2);
  for (const std::string& payload : payloads) {
    ASSERT_TRUE(node->injectPayload(payload));
  }
  EXPECT_EQ(limited->wait(), 1);
  EXPECT_NE(limited->err().find("recorded 2 messages"), std::string::npos) << limited->err();
  EXPECT_TRUE(eventually(
      [&] { return fileContent(folder.at("all")).find("xxx\"}\n") != std::string::npos; }));
  recorder->signal(SIGINT);
  EXPECT_EQ(recorder->wait(), 0);

  const std::string login = R"({"offset":9,"payload":"[\"SET\",\"system.connection\",1,0]\n"})";
  const std::string nul = R"({"offset":9,"payload":"[\"NOT\",\"b\",3,0,0]\n{\u0000}"})";
  const std::string whole = fileContent(file) + login + "\n" + nul + "\n\n";
  const std::string half = "{\"offset\":0,\"payl";
  for (const auto& [option, script] : {std::pair("--no-timing", "exec \"$@\" \"$FILE\""),
                                       std::pair("--speed=1000", "cat \"$FILE\" | \"$@\" -")}) {
    folder.write("recording", whole + half);
    node.forget();
    const auto replay = start({"replay", option}, "", "FILE=" + file + "; " + script);
    EXPECT_EQ(replay->wait(), 0);
    EXPECT_NE(replay->err().find("is unfinished and was left out"), std::string::npos);
    EXPECT_NE(replay->err().find("replayed 3 messages"), std::string::npos);
    // Before them the replayer's own login, behind them its last keep-alive and the answer.
    const auto passed = node.passed();
    ASSERT_EQ(passed.size(), 6U);
    EXPECT_EQ(*passed[1].payload, payloads[0]);
    EXPECT_EQ(*passed[2].payload, payloads[1]);
  }
  node.forget();
  folder.write("recording", whole + half + "\n" + nul);
  EXPECT_EQ(start({"replay", file})->wait(), 1);
  EXPECT_TRUE(node.passed().empty());
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
