#include <algorithm>
#include <csignal>
#include <future>

#include "message-node/RunningNode.h"
#include "support/CommandFailure.h"
#include "support/Sanitized.h"
#include "support/ScriptedNode.h"
#include "support/Vocabulary.h"
#include "tools/ChildProcess.h"
#include "valtor-bus/BusConnection.h"
#include "valtor-bus/Exchange.h"
#include "valtor-bus/PersistentLink.h"

namespace valtor::test {
namespace {

using Times = std::chrono::milliseconds;
constexpr auto kForEver = BusConnection::Clock::time_point::max();
const std::string kNotice = "[\"NOT\", \"a\", 101, 0, 0]\n{}";

BusSettings settingsFor(int port, const BusTimes& times) {
  BusSettings settings;
  settings.port = static_cast<uint16_t>(port);
  settings.times = times;
  return settings;
}

TEST(BusConnectionTest, WhatHasComeIsNoSilenceHoweverLateItIsRead) {
  ScriptedNode node;
  BusConnection connection(settingsFor(node.port(), {.quiet = Times(10), .silence = Times(40)}));
  connection.open();
  const auto peer = node.accept();
  peer->readFrame();  // the login
  EXPECT_FALSE(connection.receive(BusConnection::Clock::now() + Times(20)));
  EXPECT_EQ(peer->readFrame().rfind("[\"SET\", \"\", ", 0), 0U);
  peer->sendPayload(kNotice);
  std::this_thread::sleep_for(Times(40));  // held up, with a keep-alive out
  const auto message = connection.receive(kForEver);
  ASSERT_TRUE(message);
  EXPECT_EQ(message->receivedText(), kNotice);
  const std::string failure =
      thrownBy([&] { connection.receive(BusConnection::Clock::now() + kDeadline); });
  EXPECT_NE(failure.find("lost: no answer to a keep-alive within"), std::string::npos) << failure;
}

TEST(BusConnectionTest, AnsweredKeepAlivesHoldAQuietLinkAndAreNotSeen) {
  RunningNode node;
  BusConnection connection(settingsFor(node.port(), {.quiet = Times(1)}));
  connection.setSubscriptions({"a"});
  connection.open();
  auto received = std::async(std::launch::async, [&] { return connection.receive(kForEver); });
  EXPECT_TRUE(eventually([&] {
    return node.countPassed([](const PassedMessage& one) { return one.path.empty(); }) > 4;
  }));
  node->injectPayload(kNotice);
  EXPECT_EQ(received.get()->receivedText(), kNotice);
}

TEST(BusConnectionTest, WhatTheNodeHasNotReadCountsAsNotSent) {
  for (const std::string reason : {"reset", "confirm", "deadline"}) {
    ScriptedNode node;
    const Times confirm = reason == "confirm" ? Times(50) : Times(3600000);
    BusConnection connection(settingsFor(node.port(), {.confirm = confirm}));
    connection.open();
    if (reason == "reset") {
      node.accept()->close();  // with unread input
    } else if (reason == "deadline") {
      connection.setDeadline(BusConnection::Clock::now() + Times(50));
    }
    const auto send = [&] {
      connection.sendPayload(kNotice);
      connection.finish();
    };
    EXPECT_NE(thrownBy(send).find(" lost: "), std::string::npos) << reason;
    EXPECT_FALSE(connection.isOpen());
  }
}

TEST(ExchangeTest, OthersAreHeardForAsLongAsTheSettingsSay) {
  // A refusal or an answer that is enough bounds the wait for others; nothing else does.
  const Times kNever(3600000);
  for (const bool refuses : {false, true}) {
    ScriptedNode node;
    BusConnection connection(settingsFor(
        node.port(),
        {.others = refuses ? kNever : Times(20), .afterRefusal = refuses ? Times(20) : kNever}));
    Exchange exchange(connection, makeRequest(MessageKind::GET, "a", R"({"id":"1@x"})"), 3600);
    const auto peer = node.accept();
    peer->sendPayload("[\"RSP\", \"a\", 101, 0, 0]\n{\"id\":\"1@x\"" +
                      std::string(refuses ? ",\"statusCode\":404}" : "}"));
    EXPECT_TRUE(exchange.next());
    if (!refuses) {
      exchange.hasEnough();
    }
    EXPECT_FALSE(exchange.next());
    EXPECT_EQ(exchange.refusals().empty(), !refuses);
  }
}

TEST(BusConnectionTest, ASignalEndsEveryWait) {
  ScriptedNode node;
  for (const auto& wait :
       {+[](BusConnection& link) { link.receive(kForEver); },
        +[](BusConnection& link) { link.finish(); },
        +[](BusConnection& link) { link.awaitInput(); },
        // More than the systems of both ends take.
        +[](BusConnection& link) { link.sendPayload(std::string(20'000'000, ' ')); },
        +[](BusConnection& link) { link.open(); }}) {
    BusConnection connection(settingsFor(node.port(), {}));
    connection.open();
    std::raise(SIGINT);
    EXPECT_EQ(thrownBy([&] { wait(connection); }), "interrupted");
    EXPECT_TRUE(connection.interrupted());
  }
}

TEST(PersistentLinkTest, ANodeThatDropsEveryConnectionIsReportedOnce) {
  ScriptedNode node;
  BusConnection connection(settingsFor(node.port(), {.reopen = Times(1)}));
  PersistentLink link(connection);
  link.open();
  testing::internal::CaptureStderr();
  auto received = std::async(std::launch::async, [&] {
    EXPECT_FALSE(link.receive(kForEver));  // it is told of the loss at once
    EXPECT_FALSE(connection.isOpen());
    return link.receive(kForEver);
  });
  for (int time = 0; time < 4; ++time) {
    node.accept()->close();
  }
  const auto peer = node.accept();
  peer->sendPayload(kNotice);
  EXPECT_EQ(received.get()->receivedText(), kNotice);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
  EXPECT_NE(said.find("; trying again every second\nvaltor-bus: connected to "), std::string::npos);
}

TEST(StreamsTest, ALostStandardStreamEndsACommandWithItsReason) {
  RunningNode node;
  const std::string port = " --port " + std::to_string(node.port()) + " ";
  const struct {
    std::string line;
    int exitCode;
    std::string text;
  } cases[] = {
      {"timeout 30 " VALTOR_BUS_EXECUTABLE " watch" + port + "| true", 128 + SIGPIPE, ""},
      {VALTOR_BUS_EXECUTABLE " status --check --timeout 0 --socket /nonexistent" + port + ">&-", 3,
       "valtor-bus: cannot write to standard output: it is closed\n"},
      {"ulimit -n 5; [ \"$(" VALTOR_BUS_EXECUTABLE " status --check)\" = 'UNKNOWN: epoll: Too many "
       "open files' ] && exit 7",
       7, ""},
      {VALTOR_BUS_EXECUTABLE " --help >/dev/full", 1,
       "valtor-bus: cannot write to standard output: No space left on device\n"},
      {VALTOR_BUS_EXECUTABLE " route frob", 2,
       "valtor-bus: \"frob\" is no command\n  Commands: take, query\n"},
  };
  for (const auto& one : cases) {
    if (kSanitized && one.line.find("ulimit -n") != std::string::npos) {
      continue;  // the sanitizer itself wants a descriptor
    }
    ChildProcess tool("exec 2>err; set -o pipefail; " + one.line);
    EXPECT_EQ(tool.wait(), one.exitCode) << one.line;
    EXPECT_EQ(tool.err(), one.text) << one.line;
  }
}

TEST(StreamsTest, WhatTheLibrariesLogIsSaidOnceAndWithoutControlCharacters) {
  RunningNode node;
  ChildProcess watch("exec " VALTOR_BUS_EXECUTABLE " watch --raw --count 1 --port " +
                     std::to_string(node.port()) + " >out 2>err");
  ASSERT_TRUE(eventually([&] { return node.countEvents("SUBSCRIBE") == 1; }));
  node->writeRaw("valtor-bus", "\x1b[2J0:;");
  node->injectPayload("[\"NOT\", \"a\", 101, 0, \"2026-01-01T10:00:00.000Z\"]\n{}");
  EXPECT_EQ(watch.wait(), 0);
  EXPECT_EQ(watch.out(), "[\"NOT\", \"a\", 101, 0, \"2026-01-01T10:00:00.000Z\"]\n{}\n");
  EXPECT_EQ(watch.err(),
            "valtor-bus: PellInternalStreamParser invalid header length received=0.( [2J0)\n");
}

}  // namespace
}  // namespace valtor::test
