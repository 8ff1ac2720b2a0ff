#include <atomic>
#include <gtest/gtest.h>
#include <stdexcept>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "bus/PellInternalClient.h"
#include "bus/RequestMessages.h"
#include "bus/TestBusClient.h"
#include "support/ConsoleCapture.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/Repeat.h"
#include "support/ScriptedNode.h"
#include "support/TemporaryFolder.h"

namespace valtor {
namespace {

using test::eventually;
using test::ScriptedNode;
using test::ScriptedPeer;
using test::TestBusClient;

const char* const kNotConnected = "PellInternalClient::sendMessage - not connected.\n";

std::string bodyOf(const std::string& payload) { return payload.substr(payload.find('\n') + 1); }
std::string headerOf(const std::string& payload) { return payload.substr(0, payload.find('\n')); }

// Accepts the client's link and reads the two frames that every link begins with.
std::unique_ptr<ScriptedPeer> acceptLogin(ScriptedNode& node) {
  auto peer = node.accept();
  EXPECT_NE(peer->readFrame().find("\"login\""), std::string::npos);
  EXPECT_NE(peer->readFrame().find("\"subscribeList\""), std::string::npos);
  return peer;
}

TEST(PellInternalClient, EveryLinkBeginsWithLoginAndTheWholeSubscriptionList) {
  const test::LogCapture log;
  const test::TemporaryFolder folder;
  folder.becomePathPrefix();
  resetMessageIdentifiersForTest();
  ScriptedNode node;
  TestBusClient client(node.port());
  client.setReceiveAll(true);
  EXPECT_TRUE(client.addSubscription("device"));
  EXPECT_TRUE(client.addSubscription("db"));
  EXPECT_FALSE(client.addSubscription("device"));
  ASSERT_EQ(client.connect(), 0);
  const std::string host = std::to_string(getpid()) + ".0011a2b3c4d5";

  auto peer = node.accept();
  EXPECT_EQ(peer->readFrame(),
            "[\"SET\", \"system.connection\", 77, 0, 0]\n{\"id\":\"0@" + host +
                "\",\"param\":{\"login\":{\"name\":\"tester\",\"connID\":77,\"version\":1}}}");
  EXPECT_EQ(peer->readFrame(),
            "[\"SET\", \"system.connection\", 77, 0, 0]\n{\"id\":\"1@" + host +
                "\",\"param\":{\"subscribeList\":[{\"path\":\"device\",\"receiveAll\":true},"
                "{\"path\":\"db\",\"receiveAll\":true}]}}");

  client.subscribe("device");  // known: nothing is sent
  client.subscribe("device*");
  EXPECT_EQ(bodyOf(peer->readFrame()),
            "{\"id\":\"2@" + host +
                "\",\"param\":{\"subscribeList\":[{\"path\":\"device*\",\"receiveAll\":true}]}}");

  peer->close();
  peer = node.accept();
  EXPECT_NE(peer->readFrame().find("\"login\""), std::string::npos);
  const std::string list = peer->readFrame();
  EXPECT_NE(list.find("[{\"path\":\"device\",\"receiveAll\":true},{\"path\":\"db\",\"receiveAll\":"
                      "true},{\"path\":\"device*\",\"receiveAll\":true}]"),
            std::string::npos)
      << list;
  ASSERT_TRUE(eventually([&] { return client.states().size() == 3; }));
  EXPECT_EQ(client.states(),
            (std::vector<std::string>{"1 connect OK", "0 Socket hung up", "1 connect OK"}));
  EXPECT_EQ(log.countContaining("hung up\n"), 1);
}

TEST(PellInternalClient, MessagesAreStampedOnlyBySendMessageAndDroppedWithoutALink) {
  const test::LogCapture log;
  ScriptedNode node;
  TestBusClient client(node.port());
  PellInternalMessage message(MessageKind::GET, "db");
  message.header.sourceConnID = 490;
  EXPECT_EQ(client.sendMessage(message), 0);
  EXPECT_EQ(client.sendConstMessage(message), 0);
  EXPECT_EQ(log.count(LOG_WARNING, kNotConnected), 2);

  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);
  EXPECT_EQ(client.sendMessage(message), 0);
  EXPECT_EQ(headerOf(peer->readFrame()), "[\"GET\", \"db\", 77, 0, 0]");
  EXPECT_EQ(client.sendConstMessage(message), 0);
  EXPECT_EQ(headerOf(peer->readFrame()), "[\"GET\", \"db\", 490, 0, 0]");
  EXPECT_EQ(message.header.sourceConnID, 490);
}

TEST(PellInternalClient, ASlowReaderNeverBreaksTheFraming) {
  const test::LogCapture log;
  const test::ConsoleCapture console;
  ScriptedNode node;
  TestBusClient client(node.port(), "tester", 1);
  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);

  JSONPtr body(cJSON_CreateObject());
  cJSON_AddStringToObject(body.get(), "data", std::string(300000, 'x').c_str());
  const PellInternalMessage big(MessageKind::NOT, "big", std::move(body));
  int sent = 0;
  while (client.sendMessage(big) == 0) {
    ASSERT_LT(++sent, 1000);
  }
  EXPECT_EQ(log.countContaining("const PellInternalClient::sendMessage FAILED after 100 retries"),
            1);
  EXPECT_TRUE(console.contains("FAILED after 100 retries (sent "));
  EXPECT_TRUE(client.isConnected());

  std::atomic<bool> stop{false};
  std::thread sender([&] {
    while (!stop) {
      client.sendMessage(PellInternalMessage(MessageKind::NOT, "last"));
    }
  });
  // readFrame fails on a frame that is not whole.
  std::string header;
  int bigOnes = 0;
  while ((header = headerOf(peer->readFrame())) == "[\"NOT\", \"big\", 77, 0, 0]") {
    ++bigOnes;
  }
  stop = true;
  sender.join();
  EXPECT_EQ(header, "[\"NOT\", \"last\", 77, 0, 0]");
  EXPECT_GE(bigOnes, sent);
}

TEST(PellInternalClient, ASilentPeerGetsFiveKeepAlivesAndIsThenGivenUp) {
  const test::LogCapture log;
  ScriptedNode node;
  TestBusClient client(node.port());
  auto timing = test::quickTiming();
  timing.receiveTimeout = std::chrono::milliseconds(20);
  client.setTiming(timing);
  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);
  int keepAlives = 0;
  try {
    while (headerOf(peer->readFrame()) == "[\"SET\", \"\", 77, 0, 0]") {
      ++keepAlives;
    }
    ADD_FAILURE() << "another frame than a keep-alive";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "the other side hung up");
  }
  EXPECT_EQ(keepAlives, 5);
  ASSERT_TRUE(eventually([&] { return client.states().size() >= 3; }));
  EXPECT_EQ(client.states()[1], "0 no resp timeout");
  EXPECT_GE(log.countContaining("no response. Closing.\n"), 1);
  acceptLogin(node);
}

TEST(PellInternalClient, TrafficAfterTheIntervalTriggersOneKeepAlive) {
  ScriptedNode node;
  TestBusClient client(node.port());
  auto timing = test::quickTiming();
  timing.keepAlive = std::chrono::microseconds(0);
  client.setTiming(timing);
  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);
  peer->sendPayload("[\"NOT\", \"a\", 1, 0, 0]\n{}");
  EXPECT_EQ(headerOf(peer->readFrame()), "[\"SET\", \"\", 77, 0, 0]");
}

TEST(PellInternalClient, ANewLinkStartsCleanAfterHalfAFrameOfTheOld) {
  ScriptedNode node;
  TestBusClient client(node.port());
  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);
  const std::string first = "[\"NOT\", \"first\", 1, 0, 0]\n{}";
  peer->sendPayload(first);
  peer->send("5000000:[\"NOT\", \"cut\", 1, 0, 0]\n" + std::string(100000, ' '));
  peer->close();
  peer = acceptLogin(node);
  for (const char* path : {"second", "third"}) {
    peer->sendPayload("[\"NOT\", \"" + std::string(path) + "\", 1, 0, 0]\n{}");
  }
  ASSERT_TRUE(eventually([&] { return client.paths().size() == 3; }));
  EXPECT_EQ(client.paths(), (std::vector<std::string>{"first", "second", "third"}));
}

TEST(PellInternalClient, AFailingHandlerCostsItsOwnMessageOnly) {
  const test::LogCapture log;
  ScriptedNode node;
  TestBusClient client(node.port());
  client.onEach = [](const PellInternalMessage& message) {
    if (message.getPath() == "bad") {
      throw std::runtime_error("cannot");
    }
  };
  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);
  peer->sendPayload("[\"NOT\", \"bad\", 1, 0, 0]\n{}");
  peer->sendPayload("[\"NOT\", \"good\", 1, 0, 0]\n{}");
  ASSERT_TRUE(eventually([&] { return client.paths().size() == 2; }));
  EXPECT_EQ(
      log.count(LOG_ERR, "PellInternalClient tester: message NOT on \"bad\" failed: cannot\n"), 1);
}

TEST(PellInternalClient, ModuleReadyQueryIsAnsweredWithTheFlag) {
  ScriptedNode node;
  TestBusClient client(node.port());
  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);
  const std::string query =
      "[\"GET\", \"system\", 9, 0, 0]\n"
      "{\"id\":\"q\",\"param\":{\"objectName\":[5,\"other\",\"moduleReady\"]}}";
  peer->sendPayload(query);
  const std::string answer = peer->readFrame();
  EXPECT_EQ(answer,
            "[\"RSP\", \"system\", 77, 9, 0]\n{\"id\":\"q\",\"requestCommand\":\"GET\","
            "\"statusCode\":200,\"statusMsg\":\"OK\",\"param\":{\"moduleReady\":{\"name\":"
            "\"tester\",\"connID\":77,\"ready\":false}}}");
  client.sendModuleReady();
  client.sendModuleReady();
  EXPECT_EQ(headerOf(peer->readFrame()), "[\"NOT\", \"system\", 77, 0, 0]");
  peer->sendPayload(query);
  EXPECT_NE(peer->readFrame().find("\"ready\":true"), std::string::npos);
}

TEST(PellInternalClient, AnEndpointThatIsNoPlaceStartsNothing) {
  struct Case {
    const char* host;
    int port;
  };
  for (const Case& c :
       {Case{"", 15000}, Case{"127.0.0.1", 0}, Case{"127.0.0.1", -5}, Case{"127.0.0.1", 65536}}) {
    const test::LogCapture log;
    TestBusClient client(1);
    client.setEndpoint(c.host, c.port);
    EXPECT_EQ(client.connect(), -1);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].priority, LOG_WARNING);
    client.waitTillComplete();  // returns at once: there is no thread
  }
}

TEST(PellInternalClient, ConnectIsRepeatableAndDisconnectThenConnectStartsAfresh) {
  const test::LogCapture log;
  ScriptedNode node;
  TestBusClient client(node.port());
  ASSERT_EQ(client.connect(), 0);
  EXPECT_EQ(client.connect(), 0);
  auto first = acceptLogin(node);
  EXPECT_FALSE(node.hasConnectionWithin(std::chrono::milliseconds(50)));
  client.disconnect();
  EXPECT_TRUE(first->waitForHangUp());
  EXPECT_FALSE(client.isConnected());
  EXPECT_EQ(client.states().back(), "0 disconnect");
  EXPECT_EQ(log.count(LOG_INFO, "Closing PellInternalClient tester...\n"), 1);
  EXPECT_EQ(client.connect(), 0);
  acceptLogin(node);
}

TEST(PellInternalClient, TheReceiveThreadConnectsWhenTheNodeComesUpLater) {
  const test::LogCapture log;
  int port = 0;
  {
    const ScriptedNode reserved;
    port = reserved.port();
  }
  TestBusClient client(port);
  EXPECT_EQ(client.connect(), -1);
  EXPECT_EQ(client.connect(), -1);  // runs already: only reports
  EXPECT_GE(log.count(LOG_ERR, "PellInternalClient connect error: Connection refused 127.0.0.1\n"),
            1);
  ScriptedNode node("127.0.0.1", port);
  acceptLogin(node);
  EXPECT_TRUE(eventually([&] { return client.isConnected(); }));
}

TEST(PellInternalClient, ANodeThatHangsUpAtOnceCausesNoStorm) {
  const test::LogCapture log;
  ScriptedNode node;
  TestBusClient client(node.port());
  auto timing = test::quickTiming();
  timing.reconnectDelay = std::chrono::milliseconds(100);
  client.setTiming(timing);
  client.connect();
  node.accept();
  node.accept();  // the receive thread's first attempt may follow the owner's at once
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 3; ++i) {
    node.accept();
  }
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

TEST(PellInternalClient, AnAttemptThatHangsEndsWithItsTimeAndWithTheClient) {
  const test::LogCapture log;
  // A listener whose queue is full does not answer further attempts.
  ScriptedNode node;
  std::vector<std::unique_ptr<TestBusClient>> fillers;
  TestBusClient client(node.port());
  auto timing = test::quickTiming();
  timing.attempt = std::chrono::hours(1);
  timing.ownerAttempt = std::chrono::milliseconds(30);
  client.setTiming(timing);
  while (client.connect() == 0) {
    client.disconnect();
    ASSERT_LT(fillers.size(), 500U);
    fillers.push_back(std::make_unique<TestBusClient>(node.port()));
    fillers.back()->setTiming(timing);
    fillers.back()->connect();
  }
  EXPECT_EQ(log.countContaining("connect error: Connection timed out 127.0.0.1\n") > 0, true);
  // Destruction ends the hour-long attempt that the receive thread is in.
}

TEST(PellInternalClient, CloseFromAnOwnThreadEndsTheThreadsAndConnectStartsThemAgain) {
  ScriptedNode node;
  TestBusClient client(node.port());
  client.onEach = [&](const PellInternalMessage& message) {
    if (message.getPath() == "close") {
      client.close();
    }
  };
  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);
  peer->sendPayload("[\"NOT\", \"close\", 1, 0, 0]\n{}");
  client.waitTillComplete();
  EXPECT_TRUE(peer->waitForHangUp());
  ASSERT_EQ(client.connect(), 0);
  peer = acceptLogin(node);
  peer->sendPayload("[\"NOT\", \"again\", 1, 0, 0]\n{}");
  EXPECT_TRUE(eventually([&] { return client.paths().size() == 2; }));
}

TEST(PellInternalClient, CloseDropsTheRestOfABatch) {
  ScriptedNode node;
  TestBusClient client(node.port());
  std::atomic<bool> hold{true};
  std::atomic<bool> closing{false};
  client.onEach = [&](const PellInternalMessage&) {
    while (hold) {
      std::this_thread::yield();
    }
    // Lets close() get as far as marking before the next message is looked at.
    EXPECT_TRUE(eventually([&] { return closing.load(); }));
  };
  ASSERT_EQ(client.connect(), 0);
  auto peer = acceptLogin(node);
  for (int i = 0; i < 50; ++i) {
    peer->sendPayload("[\"NOT\", \"one\", 1, 0, 0]\n{}");
  }
  ASSERT_TRUE(eventually([&] { return client.paths().size() == 1; }));
  std::thread closer([&] { client.close(); });
  EXPECT_TRUE(peer->waitForHangUp());  // close() has marked the end
  closing = true;
  hold = false;
  closer.join();
  EXPECT_EQ(client.paths().size(), 1U);
}

TEST(PellInternalClient, StopsAndRestartsAgainstALiveNodeLeaveAWorkingLink) {
  const test::LogCapture log;
  ScriptedNode node;
  std::atomic<bool> stop{false};
  std::thread service([&] {
    std::vector<std::unique_ptr<ScriptedPeer>> peers;
    while (!stop) {
      if (node.hasConnectionWithin(std::chrono::milliseconds(5))) {
        peers.push_back(node.accept());
        peers.back()->sendPayload("[\"NOT\", \"hello\", 1, 0, 0]\n{}");
        if (peers.size() % 3 == 0) {
          peers.clear();  // hangs up on all
        }
      }
    }
  });
  {
    TestBusClient client(node.port());
    std::thread sender([&] {
      while (!stop) {
        client.sendMessage(PellInternalMessage(MessageKind::NOT, "x"));
        client.subscribe("path" + std::to_string(client.subscriptions().size() % 10));
      }
    });
    for (int i = 0; i < test::repetitions(300); ++i) {
      client.connect();
      client.disconnect();
      ASSERT_FALSE(client.isConnected());
      ASSERT_TRUE(client.states().empty() || client.states().back()[0] == '0');
    }
    client.connect();
    EXPECT_TRUE(eventually([&] { return client.isConnected(); }));
    stop = true;
    sender.join();
  }
  service.join();
}

}  // namespace
}  // namespace valtor
