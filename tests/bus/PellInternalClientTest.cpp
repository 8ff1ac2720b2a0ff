#include <atomic>
#include <cerrno>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdexcept>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "bus/BusSupport.h"
#include "bus/PellInternalClient.h"
#include "bus/SocketConnect.h"
#include "bus/message/MessageIdentifier.h"
#include "bus/message/PellInternalStreamParser.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/Repeat.h"
#include "support/ScarceMemory.h"
#include "support/ScriptedNode.h"
#include "support/TemporaryFolder.h"

namespace valtor {
namespace {

using test::eventually;
using test::ScriptedPeer;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

// A bus client that remembers the path of what it received and every change of its state.
class TestBusClient : public PellInternalClient {
 public:
  explicit TestBusClient(int port) : PellInternalClient("127.0.0.1", port, "tester", 1) {
    Timing timing;
    timing.reconnectDelay = 20ms;
    setTiming(timing);
  }
  ~TestBusClient() override { stopForDestruction(); }

  int getConnID() override {
    if (int armed = kArmed; sendGate.compare_exchange_strong(armed, kShut)) {
      sendGate.wait(kShut);
    }
    return 77;
  }
  int onMessage(const PellInternalMessage& message) override {
    PellInternalClient::onMessage(message);
    paths.add(message.getPath());
    if (message.getPath() == "close") {
      close();
    } else if (message.getPath() == "wait") {
      handlingGoesOn.wait(false);
    } else if (message.getPath().starts_with("fail")) {
      scarce.emplace(message.getPath().size(), message.getPath().size() + 1);  // for a copy of it
      throw std::runtime_error("cannot");
    }
    return 0;
  }
  void onConnectionStateChanged(int state, const std::string& reason) override {
    states.add(std::to_string(state) + " " + reason);
    if (int failing = state; failingState.compare_exchange_strong(failing, -1)) {
      throw std::runtime_error("cannot");
    }
  }

  std::atomic<int> failingState{-1};  // the next report of this state throws
  enum Gate { kOpen, kArmed, kShut };
  std::atomic<int> sendGate{kOpen};  // armed, the next send shuts it and waits until it opens
  std::atomic<bool> handlingGoesOn{false};  // what a message on "wait" waits for
  std::optional<test::ScarceMemory> scarce;
  test::Record paths;
  test::Record states;
};

std::string headerOf(const std::string& payload) { return payload.substr(0, payload.find('\n')); }
std::string note(const std::string& path) { return "[\"NOT\", \"" + path + "\", 1, 0, 0]\n{}"; }

class PellInternalClientTest : public testing::Test {
 protected:
  // Accepts the client's link and reads the two frames that every link begins with.
  std::unique_ptr<ScriptedPeer> acceptLogin() {
    auto peer = node_.accept();
    EXPECT_NE(peer->readFrame().find("\"login\""), std::string::npos);
    EXPECT_NE(peer->readFrame().find("\"subscribeList\""), std::string::npos);
    return peer;
  }
  std::unique_ptr<ScriptedPeer> connect() {
    EXPECT_EQ(client_.connect(), 0);
    return acceptLogin();
  }

  test::LogCapture log_;
  test::ScriptedNode node_;
  TestBusClient client_{node_.port()};
};

TEST_F(PellInternalClientTest, EveryLinkBeginsWithLoginAndTheWholeSubscriptionList) {
  const test::TemporaryFolder folder;
  folder.becomePathPrefix();
  resetMessageIdentifiersForTest();
  client_.setReceiveAll(true);
  EXPECT_TRUE(client_.addSubscription("device"));
  EXPECT_FALSE(client_.addSubscription("device"));
  ASSERT_EQ(client_.connect(), 0);
  const std::string header = "[\"SET\", \"system.connection\", 77, 0, 0]\n{\"id\":\"";
  const std::string host = "@" + std::to_string(getpid()) + ".0011a2b3c4d5\",\"param\":{";
  const std::string login = R"("login":{"name":"tester","connID":77,"version":1}}})";
  const std::string list = host + R"("subscribeList":[)";
  const std::string device = R"({"path":"device","receiveAll":true})";
  const std::string star = R"({"path":"device*","receiveAll":true})";
  auto peer = node_.accept();
  EXPECT_EQ(peer->readFrame(), header + "0" + host + login);
  EXPECT_EQ(peer->readFrame(), header + "1" + list + device + "]}}");
  client_.subscribe("device");  // known: nothing is sent
  client_.subscribe("device*");
  EXPECT_EQ(peer->readFrame(), header + "2" + list + star + "]}}");
  peer->close();
  peer = node_.accept();
  EXPECT_EQ(peer->readFrame(), header + "3" + host + login);
  EXPECT_EQ(peer->readFrame(), header + "4" + list + device + "," + star + "]}}");
  ASSERT_TRUE(eventually([&] { return client_.states.lines().size() == 3; }));
  EXPECT_EQ(client_.states.lines(), (Lines{"1 connect OK", "0 Socket hung up", "1 connect OK"}));
}

TEST_F(PellInternalClientTest, ASilentPeerGetsFiveKeepAlivesAndIsThenGivenUp) {
  auto timing = client_.timing();
  timing.receiveTimeout = 20ms;
  client_.setTiming(timing);
  auto peer = connect();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(headerOf(peer->readFrame()), "[\"SET\", \"\", 77, 0, 0]");
  }
  EXPECT_THROW(peer->readFrame(), std::runtime_error);
  acceptLogin();
  EXPECT_EQ(client_.states.lines()[1], "0 no resp timeout");
}

// While it lives no thread gets its stack.
class NoThreads {
 public:
  NoThreads() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t huge = before_;
    pthread_attr_setstacksize(&huge, SIZE_MAX / 4 * 3 & ~std::size_t{0xFFFF});
    EXPECT_EQ(pthread_setattr_default_np(&huge), 0);
  }
  ~NoThreads() { pthread_setattr_default_np(&before_); }
  NoThreads(const NoThreads&) = delete;
  NoThreads& operator=(const NoThreads&) = delete;

 private:
  pthread_attr_t before_{};
};

TEST_F(PellInternalClientTest, WithoutThreadsNothingIsTriedOrReported) {
  {
    const NoThreads none;
    EXPECT_EQ(client_.connect(), -1);
  }
  EXPECT_EQ(log_.countContaining("could not be started"), 1);
  EXPECT_FALSE(client_.isRunning());
  EXPECT_FALSE(node_.hasConnectionWithin(0ms));
  EXPECT_EQ(client_.states.lines(), Lines());
  connect();
}

TEST_F(PellInternalClientTest, AHookThatFailsInConnectLeavesNoLinkBehind) {
  client_.failingState = 1;
  EXPECT_THROW(client_.connect(), std::runtime_error);
  EXPECT_FALSE(client_.isConnected());
  EXPECT_TRUE(node_.accept()->waitForHangUp());
  connect();
}

TEST_F(PellInternalClientTest, AHookThatFailsOnTheReceiveThreadGivesThatLinkUp) {
  auto peer = connect();
  client_.failingState = 1;
  peer->close();
  EXPECT_TRUE(node_.accept()->waitForHangUp());
  acceptLogin();
  EXPECT_EQ(log_.count(LOG_ERR, "PellInternalRxThread: tester: cannot\n"), 1);
}

TEST_F(PellInternalClientTest, TrafficTriggersAKeepAliveAndOneThatCannotGoOutEndsTheLink) {
  auto timing = client_.timing();
  timing.keepAlive = 0ms;
  client_.setTiming(timing);
  auto peer = connect();
  peer->sendPayload(note("any"));
  EXPECT_EQ(headerOf(peer->readFrame()), "[\"SET\", \"\", 77, 0, 0]");
  peer->close();
  peer = node_.accept();
  ASSERT_TRUE(eventually([&] { return client_.states.lines().size() == 3; }));
  client_.sendGate = TestBusClient::kArmed;
  peer->sendPayload(note("any"));
  ASSERT_TRUE(eventually([&] { return client_.sendGate == TestBusClient::kShut; }));
  peer->close();  // with the login unread: the client's system hears of it at once
  client_.sendGate = TestBusClient::kOpen;
  client_.sendGate.notify_all();
  EXPECT_TRUE(eventually([&] { return client_.states.lines().size() > 3; }));
  EXPECT_EQ(client_.states.lines()[3], "0 send ACK req error");
}

TEST_F(PellInternalClientTest, ReadingPausesWhileTooMuchWaitsAndTheEndOfTheLinkIsSeen) {
  auto peer = connect();
  peer->sendPayload(note("wait"));
  // Alone in its batch.
  ASSERT_TRUE(eventually([&] { return client_.paths.lines() == Lines{"wait"}; }));
  const std::string large = note("large") + std::string(500'000, ' ');
  for (int i = 0; i < 17; ++i) {  // little more than is read, so that the sockets hold the rest
    peer->sendPayload(large);
  }
  EXPECT_TRUE(eventually(
      [&] { return log_.countContaining(" bytes wait to be handled, reading pauses.\n") == 1; }));
  // The end of the link is seen all the same; what was read of it is still handled.
  peer->reset();
  EXPECT_TRUE(eventually([&] { return client_.states.lines().size() > 1; }));
  EXPECT_EQ(client_.states.lines()[1], "0 Socket hung up");
  EXPECT_EQ(log_.countContaining("tester: the link ended while reading paused, "), 1);
  EXPECT_EQ(client_.paths.lines(), Lines{"wait"});
  client_.handlingGoesOn = true;
  client_.handlingGoesOn.notify_all();
  EXPECT_TRUE(eventually([&] { return client_.paths.lines().size() > 16; }));
}

TEST(SocketConnect, ASocketThatMeetsItselfIsRefused) {
  const UniqueDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof own;
  auto* const address = reinterpret_cast<sockaddr*>(&own);
  ASSERT_EQ(bind(socket.get(), address, size), 0);
  ASSERT_EQ(getsockname(socket.get(), address, &size), 0);
  EXPECT_EQ(connectWithin(socket.get(), address, size, 3s, [] { return false; }), ECONNREFUSED);
}

TEST_F(PellInternalClientTest, AHandlerThatFailsCostsNoOtherMessage) {
  auto peer = connect();
  const std::string failing = "fail" + std::string(900, '.');  // that the log line cannot copy
  peer->send(frame(note(failing)) + frame(note("next")));
  EXPECT_TRUE(eventually([&] { return log_.countContaining("\" failed: cannot\n") == 1; }));
  client_.scarce.reset();
  EXPECT_EQ(log_.countContaining("tester: message NOT on \"" + failing), 1);
  EXPECT_TRUE(eventually([&] { return client_.paths.lines() == Lines{failing, "next"}; }));
}

TEST_F(PellInternalClientTest, WhatFindsNoMemoryIsReadAndHandledLaterWithoutAGap) {
  auto peer = connect();
  std::string halves[2];
  Lines expected{"wait"};
  for (int i = 0; i < 200; ++i) {
    expected.push_back(std::to_string(i));
    halves[i / 100] += frame(note(expected.back()) + std::string(500, ' '));
  }
  // Cut within a frame. The parser has some of the first one.
  peer->send(frame(note("wait")) + halves[0].substr(0, 100));
  ASSERT_TRUE(eventually([&] { return client_.paths.lines() == Lines{"wait"}; }));
  halves[1] = halves[0].substr(40'000) + halves[1];
  halves[0] = halves[0].substr(100, 39'900);
  peer->send(halves[0]);
  ASSERT_TRUE(eventually([&] { return client_.figures().queue.bytes == halves[0].size(); }));
  client_.scarce.emplace(10'000);
  peer->send(halves[1]);
  client_.handlingGoesOn = true;
  client_.handlingGoesOn.notify_all();
  const auto says = [&](const char* text) {
    return eventually([&] { return log_.countContaining(text) == 1; });
  };
  EXPECT_TRUE(says("PellInternalRxThread: tester: no memory for what was read, reading waits."));
  EXPECT_TRUE(says("PellInternalMsgQThread: tester: "));
  client_.scarce.reset();
  EXPECT_TRUE(eventually([&] { return client_.paths.lines().size() == expected.size(); }));
  EXPECT_EQ(client_.paths.lines(), expected);
  EXPECT_EQ(client_.states.lines(), Lines{"1 connect OK"});
}

TEST_F(PellInternalClientTest, ModuleReadyQueryIsAnsweredWithTheFlag) {
  auto peer = connect();
  const auto answered = [&](const std::string& ready) {
    peer->sendPayload(
        "[\"GET\", \"system\", 9, 0, 0]\n"
        R"({"id":"q","param":{"objectName":[5,"moduleReady"]}})");
    EXPECT_EQ(peer->readFrame(),
              "[\"RSP\", \"system\", 77, 9, 0]\n"
              R"({"id":"q","requestCommand":"GET","statusCode":200,"statusMsg":"OK","param":)"
              R"({"moduleReady":{"name":"tester","connID":77,"ready":)" +
                  ready + "}}}");
  };
  answered("false");
  client_.sendModuleReady();
  EXPECT_EQ(headerOf(peer->readFrame()), "[\"NOT\", \"system\", 77, 0, 0]");
  answered("true");
}

TEST_F(PellInternalClientTest, WithoutAUsableEndpointNothingIsTriedOrSent) {
  client_.setEndpoint("127.0.0.1", 0);
  EXPECT_EQ(client_.connect(), -1);
  client_.waitTillComplete();  // returns at once: there is no thread
  EXPECT_EQ(client_.sendMessage(PellInternalMessage(MessageKind::NOT, "lost")), 0);
  EXPECT_EQ(log_.count(LOG_WARNING, "PellInternalClient::sendMessage - not connected.\n"), 1);
}

TEST_F(PellInternalClientTest, CloseFromAnOwnThreadDropsTheRestAndConnectStartsAfresh) {
  auto peer = connect();
  std::string frames;  // in one send: the client may hang up as soon as it has the first
  for (const char* path : {"close", "dropped", "dropped", "dropped"}) {
    frames += frame(note(path));
  }
  peer->send(frames);
  client_.waitTillComplete();
  EXPECT_FALSE(client_.isConnected());
  EXPECT_EQ(client_.states.lines().back(), "0 close");  // by the thread that ended last
  EXPECT_TRUE(peer->waitForHangUp());
  peer = connect();
  peer->sendPayload(note("again"));
  EXPECT_TRUE(eventually([&] { return client_.paths.lines() == Lines{"close", "again"}; }));
}

TEST_F(PellInternalClientTest, StopsAndRestartsAgainstALiveNodeLeaveAWorkingLink) {
  std::atomic<bool> stop{false};
  std::thread service([&] {
    std::vector<std::unique_ptr<ScriptedPeer>> peers;
    while (!stop) {
      if (node_.hasConnectionWithin(5ms)) {
        peers.push_back(node_.accept());
        peers.back()->sendPayload(note("hello"));
        if (peers.size() % 3 == 0) {
          peers.clear();  // hangs up on all
        }
      }
    }
  });
  std::thread sender([&] {
    while (!stop) {
      client_.sendMessage(PellInternalMessage(MessageKind::NOT, "x"));
      client_.subscribe("path" + std::to_string(client_.subscriptions().size() % 10));
    }
  });
  for (int i = 0; i < test::repetitions(300); ++i) {
    client_.connect();
    client_.disconnect();
    EXPECT_FALSE(client_.isConnected());
    EXPECT_TRUE(client_.states.lines().empty() || client_.states.lines().back()[0] == '0');
  }
  client_.connect();
  EXPECT_TRUE(eventually([&] { return client_.isConnected(); }));
  stop = true;
  sender.join();
  service.join();
}

}  // namespace
}  // namespace valtor
