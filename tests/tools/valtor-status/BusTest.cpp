#include <csignal>
#include <regex>

#include "bus/message/PellInternalStreamParser.h"
#include "tools/ChildProcess.h"
#include "tools/valtor-status/PageFixture.h"
#include "valtor-status/FrameSkimmer.h"

namespace valtor::test {
namespace {

TEST(FrameSkimmerTest, FindsTheFramesThatTheBusItselfFindsWhateverTheSizesOfTheReads) {
  const std::string good = "[\"NOT\", \"a\", 1, 0, 0]\n{}";
  const std::string stream = "x:0:" + frame(good) + "noise" + frame(good + "1") +
                             std::string(70, 'n') + frame(good + "2") + "20000001:x" +
                             frame(good + "3") + std::to_string(good.size()) + ":" + good + "!" +
                             frame(good + "4;5:") + "::;" +
                             frame(good + std::string(FrameSkimmer::kKept, 'z')) + frame(good);
  for (const std::size_t step : {std::size_t{1}, std::size_t{7}, stream.size()}) {
    std::vector<std::string> expected;
    PellInternalStreamParser parser;
    parser.setMessageCallback([&](const std::vector<PellInternalMessage>& messages) {
      for (const PellInternalMessage& message : messages) {
        expected.push_back(message.encode().substr(0, FrameSkimmer::kKept));
      }
    });
    std::vector<std::string> found;
    std::size_t cut = 0;
    FrameSkimmer skimmer([&](std::string_view payload, bool whole) {
      found.emplace_back(payload);
      cut += whole ? 0 : 1;
    });
    for (std::size_t at = 0; at < stream.size(); at += step) {
      const std::string part = stream.substr(at, step);
      parser.parse(part.data(), part.size());
      skimmer.take(part.data(), part.size());
    }
    EXPECT_EQ(found.size(), 7U);
    EXPECT_EQ(found, expected) << step;
    EXPECT_EQ(cut, 1U);
  }
}

bool asksForReadiness(const PassedMessage& message) {
  return message.kind == MessageKind::GET && message.path == "system" &&
         message.destination == 101 && message.body().find("moduleReady") != std::string::npos;
}

TEST(BusParticipantTest, CountsWhatPassesMeasuresTheDaemonAndComesBack) {
  auto node = std::make_unique<RunningNode>();
  const uint16_t port = node->port();
  BusParticipant participant({"127.0.0.1", port, "watcher", 30001});
  const auto seen = [&] { return participant.view().messages; };
  ASSERT_TRUE(eventually([&] { return node->countEvents("SUBSCRIBE") == 1; }));
  EXPECT_EQ(node->countEvents("name=watcher id=30001"), 1U);
  EXPECT_TRUE(participant.view().up);
  // Ten megabytes, and what looks like an answer to somebody else.
  uint64_t before = seen();
  (*node)->inject(101, "NOT", "any", 0, "{\"b\":\"" + std::string(10485760, 'b') + "\"}");
  (*node)->inject(101, "RSP", "system", 30001, "{\"id\":\"other\"}");
  EXPECT_TRUE(eventually([&] { return seen() >= before + 2; }));
  EXPECT_FALSE(participant.view().daemonAnsweredAt);
  // Nobody answers for long: the delay grows.
  EXPECT_TRUE(eventually([&] { return participant.view().daemonDelayMs.value_or(0) > 2000; }));
  ASSERT_TRUE(eventually([&] { return node->countPassed(asksForReadiness) > 0; }));
  for (const PassedMessage& message : node->passed()) {
    if (asksForReadiness(message)) {
      const std::string body(message.body());
      (*node)->inject(101, "RSP", "system", message.source, body.substr(0, body.find(',')) + "}");
      break;
    }
  }
  EXPECT_TRUE(eventually([&] { return participant.view().daemonAnsweredAt.has_value(); }));
  node.reset();
  EXPECT_TRUE(eventually([&] { return !participant.view().up; }));
  EXPECT_FALSE(participant.view().daemonDelayMs);
  MessageNode::Options options;
  options.port = port;
  node = std::make_unique<RunningNode>(options);
  EXPECT_TRUE(eventually([&] { return node->countEvents("LOGIN") == 1; }));
  EXPECT_TRUE(eventually([&] { return participant.view().up; }));
}

class StatusExecutableTest : public PageFixture {
 protected:
  static int freePort() {
    const RunningNode node;
    return node.port();
  }
  static std::unique_ptr<ChildProcess> run(const std::string& options) {
    return std::make_unique<ChildProcess>("exec " VALTOR_STATUS_EXECUTABLE " " + options +
                                          " >out 2>err");
  }
};

TEST_F(StatusExecutableTest, ServesUntilItIsToldToEndAndSaysWhatIsWrong) {
  StatusStandIn daemon(path);
  daemon.say(documentJSON(routerJSON("north", "up")));
  const int port = freePort();
  const std::string options = "--port " + std::to_string(port) + " --socket " + path;
  const auto first = run(options + " --bus-port 1");
  for (const std::string& line :
       {"serving on http://127.0.0.1:" + std::to_string(port) + "/",
        std::string("the daemon answers"),
        std::string(
            "not on the controller's bus: cannot connect to 127.0.0.1:1: Connection refused")}) {
    EXPECT_TRUE(eventually([&] {
      return ("\n" + first->err()).find("\nvaltor-status: " + line + "\n") != std::string::npos;
    })) << line;
  }
  Browser browser(static_cast<uint16_t>(port));
  browser.get("/api/events");
  EXPECT_TRUE(browser.shows("\"name\":\"north\""));
  EXPECT_TRUE(browser.shows("cannot connect to 127.0.0.1:1: Connection refused"));
  const auto second = run(options);
  EXPECT_EQ(second->wait(), 1);
  EXPECT_EQ(second->err(), "valtor-status: cannot serve on 127.0.0.1:" + std::to_string(port) +
                               ": Address already in use\n");
  first->signal(SIGTERM);
  EXPECT_TRUE(browser.ends());
  EXPECT_EQ(first->wait(), 0);
  EXPECT_GT(run("--port 70000")->wait(), 1);
  for (const char* address : {"''", "no.such.address.invalid"}) {
    const auto nowhere = run(std::string("--port 1 --listen ") + address);
    EXPECT_EQ(nowhere->wait(), 1);
    EXPECT_NE(nowhere->err().find(":1: no such address\n"), std::string::npos) << nowhere->err();
  }
}

TEST_F(StatusExecutableTest, TheManualPageNamesEveryOption) {
  const auto help = run("--help");
  ASSERT_EQ(help->wait(), 0);
  const std::string page = fileContent(VALTOR_STATUS_MAN_PAGE);
  const std::string text = help->out();
  const std::regex option("--[a-z-]+");
  std::size_t count = 0;
  for (std::sregex_iterator at(text.begin(), text.end(), option), end; at != end; ++at, ++count) {
    const std::string escaped = std::regex_replace(at->str(), std::regex("-"), "\\-");
    EXPECT_NE(page.find(escaped), std::string::npos) << at->str();
  }
  EXPECT_EQ(count, 8U);
}

}  // namespace
}  // namespace valtor::test
