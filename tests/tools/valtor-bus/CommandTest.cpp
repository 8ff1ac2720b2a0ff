#include <netinet/in.h>
#include <sstream>
#include <sys/socket.h>

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
  node->inject(102, "SET", "device.a", 7, "{\"m\":\"\x1b[2J\xe2\x80\xae\"}");
  EXPECT_EQ(watch->wait(), 0);
  const std::string out = watch->out();
  const std::size_t second = out.find('\n') + 1;
  EXPECT_EQ(out.substr(12, second - 12), " NOT    device 101->0 {\"n\": 12345678901234567890}\n");
  EXPECT_EQ(out.substr(second + 12), " SET    device.a 102->7 {\"m\":\" [2J   \"}\n");
  EXPECT_NE(watch->err().find("lost: the node hung up; trying again"), std::string::npos);
}

TEST_F(ValtorBusTest, WatchPrintsForScriptsAndFailsWhenTooLittleCame) {
  const auto json = start({"watch", "--json", "--count", "1"});
  const auto raw = start({"watch", "--raw", "--count", "1"});
  const auto own = start({"watch", "--count", "1", "--format",
                          "%{kind}\\t%{path} %{source}@%{sourceName} %{size}%% %{body}"});
  const auto cut = start({"watch", "--count", "1", "--width", "5"});
  waitForSubscriptions(4);
  node->injectPayload("[\"NOT\",\"a\",\"0x10@x\",0 ]\n{ \"n\" : 1.00 } ");
  EXPECT_EQ(json->wait() + raw->wait() + own->wait() + cut->wait(), 0);
  EXPECT_EQ(own->out(), "NOT\ta 16@x 39% { \"n\" : 1.00 } \n");
  EXPECT_EQ(cut->out().substr(12), " NOT    a 16@x->0 { \"n\"... (10 bytes more)\n");
  EXPECT_EQ(json->out().substr(json->out().find(",\"kind\"")),
            R"(,"kind":"NOT","path":"a","source":16,"sourceName":"x","destination":0,)"
            "\"body\":{\"n\":1.00}}\n");
  EXPECT_EQ(raw->out(), "[\"NOT\",\"a\",\"0x10@x\",0 ]\n{ \"n\" : 1.00 } \n");
  EXPECT_EQ(start({"watch", "--count", "1", "--timeout", "0.1"})->wait(), 1);
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
  folder.write("recording", whole + half);
  looked.clear();
  const auto loop = start({"replay", "--no-timing", "--loop", "--path", "a", file});
  EXPECT_TRUE(nextSent("a").path == "a" && nextSent("a").path == "a");
  loop->signal(SIGINT);
  EXPECT_EQ(loop->wait(), 0);
  EXPECT_EQ(node.countPassed([](const PassedMessage& one) { return one.path == "b"; }), 0U);
}

TEST_F(ValtorBusTest, WhoeverStartsBeforeTheDaemonSucceeds) {
  const auto count = [&](const auto& condition) { return node.countPassed(condition); };
  const auto isSet = [](const PassedMessage& one) {
    return one.kind == MessageKind::SET && one.path == "device";
  };
  node->stopListening();
  ready = false;
  const auto get = start({"get", "a", "--timeout", "60"});
  node->startListening();
  nextSent("device");
  answerNext("device", {"\"param\":{\"a\":1}"});  // the repetition
  EXPECT_EQ(get->wait(), 0) << get->err();
  const auto set = start({"set", "a=1", "--timeout", "60", "--name", "set"});
  ASSERT_TRUE(eventually([&] { return count(isReadinessQuestion) >= 3; }));
  EXPECT_EQ(count(isSet), 0U);
  ready = true;
  answerNext("device", {R"("statusCode":200)"}, "set");
  EXPECT_EQ(set->wait(), 0) << set->err();
  EXPECT_EQ(count(isSet), 1U);
}

TEST_F(ValtorBusTest, PingMeasuresTheDaemonAndTheNodesOfRouters) {
  const std::string place = "127.0.0.1:" + std::to_string(node.port());
  for (const std::string& router : Texts{"", place, "north"}) {
    const auto ping = start({"ping", "--count", "2", "--interval", "0", "--timeout", "60", router});
    if (router == "north") {
      nextSent("device");
      answerNext(
          "device",
          {R"("param":{"connectionPoint":[{"uniqueID":"r","name":"north","phy":[{"ipAddress":)"
           R"("127.0.0.1","port":)" +
           std::to_string(node.port()) + "}]}]}"});
    }
    EXPECT_EQ(ping->wait(), 0) << ping->err();
    EXPECT_NE(ping->out().find("\n2 of 2 answered, minimum "), std::string::npos) << ping->out();
  }
  ready = false;
  const auto ping = start({"ping", "--count", "1", "--timeout", "0.1"});
  EXPECT_EQ(ping->wait(), 1);
  EXPECT_EQ(ping->out(), "1: no answer within 0.1 s\n0 of 1 answered\n");
  const auto early = start({"ping", "--count", "1", "--timeout", "60", "--name", "early"});
  nextSent("system", "early");
  nextSent("system", "early");  // again
  ready = true;
  EXPECT_EQ(early->wait(), 0) << early->out();
}

TEST_F(ValtorBusTest, NobodyWaitsLongerThanHeSaidForAHostThatSwallowsEverything) {
  const auto endpoint = [] {
    return UniqueDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  };
  const UniqueDescriptor full = endpoint();  // with room for one connection that nobody accepts
  const UniqueDescriptor only = endpoint();
  sockaddr_in name{};
  socklen_t size = sizeof name;
  auto* generic = reinterpret_cast<sockaddr*>(&name);
  ASSERT_EQ(listen(full.get(), 0), 0);
  ASSERT_EQ(getsockname(full.get(), generic, &size), 0);
  ASSERT_EQ(connect(only.get(), generic, size), 0);
  const std::string port = std::to_string(ntohs(name.sin_port));
  for (const Texts& command : {Texts{"watch"}, {"record", "-"}, {"get", "a"}, {"wait"}, {"ping"}}) {
    Texts arguments = command;
    arguments.insert(arguments.end(), {"--port", port, "--timeout", "0.1"});
    const auto tool = start(arguments, "", "tool=$1; shift 3; exec \"$tool\" \"$@\"");
    EXPECT_EQ(tool->wait(), 1);
    EXPECT_NE(tool->err().find(": no answer within 0."), std::string::npos) << tool->err();
  }
}

TEST_F(ValtorBusTest, CheckTellsWhatTheDaemonMakesOfEachEntry) {
  const auto entry = [](const std::string& uniqueID, const std::string& phy) {
    return R"({"type":"valtor","name":"n","uniqueID":")" + uniqueID + R"(","phy":[{"type":"tcp",)" +
           phy + "}]}";
  };
  const std::string good = R"("ipAddress":"127.0.0.2","port":15000,"server":true)";
  const TemporaryFolder folder;
  const auto checked = [&](const std::string& content) {
    folder.write("file", content);
    auto tool = start({"check", folder.at("file")});
    const int code = tool->wait();
    std::string out = tool->out() + tool->err();
    for (std::size_t at = 0; (at = out.find(folder.at("file"))) != std::string::npos;) {
      out.replace(at, folder.at("file").size(), "F");
    }
    return std::to_string(code) + "\n" + out;
  };
  EXPECT_EQ(checked("{\"a]\\\"\":[{},[1]],\n\"connectionPoint\":[" + entry("1", good) + ",\n" +
                    entry("2", "\"port\":\"1\"") + ",\n\n{\"type\":\"x\"}," +
                    entry("4", R"("ipAddress":"127.0.0.1","port":1)") + ",\n7," +
                    entry("1", R"("ipAddress":"127.0.0.3","port":9)") + "]}"),
            "1\n"
            "F:2: left out: n (1), 127.0.0.2:15000; line 6 describes the same unique ID again\n"
            "F:3: refused: 2, invalid port; data parsing error; invalid phy details; no valid phy "
            "found\n"
            "F:5: left out: its type is \"x\"\n"
            "F:5: left out: 4, its address is that of the controller itself\n"
            "F:6: left out: it has no type\n"
            "F:6: taken: n (1), 127.0.0.3:9, as an incoming client: not \"server\": true\n"
            "1 taken, 1 refused, 4 left out\n");
  EXPECT_EQ(checked("{\"connectionPoint\":[" + entry("1", good) + "]}").front(), '0');
  EXPECT_EQ(checked("{\n[}"),
            "1\nvaltor-bus: not JSON: F\n  line 2, column 1: Missing a name for object member.\n");
  EXPECT_EQ(checked("[]"), "1\nvaltor-bus: not a JSON object: F\n");
  EXPECT_NE(checked(std::string(8388609, '[')).find("has 8388609 bytes, more than"),
            std::string::npos);
  EXPECT_EQ(start({"check", folder.path()})->wait(), 1);
  EXPECT_TRUE(node.passed().empty());
}

TEST_F(ValtorBusTest, HostAndPortComeFromTheFirstPlaceThatHasThem) {
  node->stopListening();
  const struct {
    std::string script;
    std::string error;
    int exitCode = 1;
  } cases[] = {
      {"", "cannot connect to 127.0.0.9:2: "},
      {"export VALTOR_BUS_PORT=3 VALTOR_BUS_HOST=;", "cannot connect to 127.0.0.9:3: "},
      {"export VALTOR_BUS_PORT=0; set -- -p 4 -H 127.0.0.8;", "cannot connect to 127.0.0.8:4: "},
      {"export VALTOR_BUS_PORT=0;", "VALTOR_BUS_PORT: \"0\" is no whole number from 1 to 65535", 2},
      // A folder that cannot be looked into has no file.
      {"ln -s x x; export XDG_CONFIG_HOME=$PWD/x VALTOR_BUS_HOST=127.0.0.7;",
       "cannot connect to 127.0.0.7:"},
      {"echo host 7 >>valtor-bus.conf; exec 2>err; exec " VALTOR_BUS_EXECUTABLE " check none;",
       "error while opening file: none"},
      {"echo host 7 >>valtor-bus.conf;",
       "valtor-bus.conf, line 4: \"host 7\" is neither host=NAME nor port=NUMBER", 2},
  };
  for (const auto& one : cases) {
    ChildProcess tool(
        "export XDG_CONFIG_HOME=$PWD; printf '# ours\\n\\nhost = 127.0.0.9 # far\\n' "
        ">valtor-bus.conf; " +
        std::string(one.exitCode == 2 ? "" : "echo port=2 >>valtor-bus.conf;") + one.script +
        "exec 2>err; exec " VALTOR_BUS_EXECUTABLE " watch \"$@\"");
    EXPECT_EQ(tool.wait(), one.exitCode);
    EXPECT_NE(tool.err().find(one.error), std::string::npos) << tool.err();
  }
}

TEST_F(ValtorBusTest, EveryOptionIsInTheCompletionAndOnTheManPage) {
  const std::string page = fileContent(VALTOR_BUS_MAN_PAGE);
  for (const std::string command :
       {"", "watch", "get", "set", "update", "del", "send", "status", "route take", "route query",
        "record", "replay", "ping", "check", "follow", "wait"}) {
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
