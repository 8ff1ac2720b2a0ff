#include <atomic>
#include <gtest/gtest.h>
#include <syslog.h>
#include <thread>

#include "bus/RSPMessage.h"
#include "bus/TestBusClient.h"
#include "bus/ValtorInterfaceClient.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/Repeat.h"
#include "support/ScriptedNode.h"

namespace valtor {
namespace {

using test::eventually;
using test::ScriptedNode;
using test::ScriptedPeer;

// What a test sees of a handler that the client owns.
struct HandlerRecord {
  std::mutex mutex;
  std::vector<std::string> seen;  // "message PATH" and "link 0|1", in order
  std::atomic<int> alive{0};

  std::vector<std::string> copy() {
    const std::lock_guard<std::mutex> lock(mutex);
    return seen;
  }
};

class RecordingHandler : public IPellaInternalProtocolHandler {
 public:
  RecordingHandler(HandlerRecord& record, std::string takes, std::string interfaceJson = "")
      : record_(record), takes_(std::move(takes)), interface_(std::move(interfaceJson)) {
    ++record_.alive;
  }
  ~RecordingHandler() override { --record_.alive; }

  // Takes one path; answers every string of "param" with a response of that status.
  bool handleMessage(const PellInternalMessage& message, ResponseList& responses) override {
    note("message " + message.getPath());
    if (message.getPath() != takes_) {
      return false;
    }
    const cJSON* code = nullptr;
    cJSON_ArrayForEach(code, arrayMember(message.viewBody(), "param")) {
      responses.push_back(std::make_unique<RSPMessage>(message, code->valueint));
    }
    return true;
  }
  JSONPtr getInterfaceJSON() override { return JSONPtr(cJSON_Parse(interface_.c_str())); }
  void onBusConnectionChanged(bool connected) override { note(connected ? "link 1" : "link 0"); }

 private:
  void note(const std::string& text) {
    const std::lock_guard<std::mutex> lock(record_.mutex);
    record_.seen.push_back(text);
  }

  HandlerRecord& record_;
  const std::string takes_;
  const std::string interface_;
};

// An interface client between a scripted node and handlers that record.
class InterfaceClientTest : public testing::Test {
 protected:
  std::unique_ptr<ValtorInterfaceClient> makeClient(bool skipDatabase = false) {
    auto client = std::make_unique<ValtorInterfaceClient>("127.0.0.1", node_.port(), "valtorRemote",
                                                          skipDatabase, "db/");
    client->setTiming(test::quickTiming());
    client->setDatabaseLoader([this](ValtorInterfaceClient& owner) {
      ++loads_;
      owner.addHandler(std::make_unique<RecordingHandler>(record_, "device"));
    });
    return client;
  }

  // Accepts a link and reads login, subscriptions and the question for the role.
  std::unique_ptr<ScriptedPeer> acceptLink() {
    auto peer = node_.accept();
    login_ = peer->readFrame();
    list_ = peer->readFrame();
    role_ = peer->readFrame();
    return peer;
  }

  static std::string header(const std::string& payload) {
    return payload.substr(0, payload.find('\n'));
  }

  static void announceRole(ScriptedPeer& peer, const std::string& role) {
    peer.sendPayload(
        "[\"SET\", \"system\", 2, 0, 0]\n{\"id\":\"r\",\"param\":{\"mdxMasterState\":\"" + role +
        "\"}}");
  }

  test::LogCapture log_;
  ScriptedNode node_;
  HandlerRecord record_;
  std::atomic<int> loads_{0};
  std::string login_;
  std::string list_;
  std::string role_;
};

TEST_F(InterfaceClientTest, LogsInAs101WithItsEightPathsAndAsksForTheRole) {
  auto client = makeClient();
  ASSERT_EQ(client->connect(), 0);
  auto peer = acceptLink();
  EXPECT_NE(login_.find("{\"login\":{\"name\":\"valtorRemote\",\"connID\":101,\"version\":1}}"),
            std::string::npos);
  std::string expected;
  for (const char* path :
       {"device", "db", "system", "route", "tally", "controller", "mdxi.system", "mv"}) {
    expected += (expected.empty() ? "" : ",") + std::string("{\"path\":\"") + path +
                "\",\"receiveAll\":true}";
  }
  EXPECT_NE(list_.find("{\"subscribeList\":[" + expected + "]}"), std::string::npos);
  EXPECT_EQ(header(role_), "[\"GET\", \"system\", 101, 0, 0]");
  EXPECT_NE(role_.find("\"param\":{\"objectName\":[\"mdxMasterState\"]}}"), std::string::npos);
}

TEST_F(InterfaceClientTest, EveryHandlerIsAskedAndTheAnswersGoOutInOrder) {
  auto client = makeClient();
  client->addHandler(std::make_unique<RecordingHandler>(record_, "device"));
  client->addHandler(std::make_unique<RecordingHandler>(record_, "tally"));
  ASSERT_EQ(client->connect(), 0);
  auto peer = acceptLink();
  peer->sendPayload("[\"GET\", \"nobody\", 490, 0, 0]\n{\"id\":\"n\"}");
  peer->sendPayload("[\"GET\", \"device\", 490, 0, 0]\n{\"id\":\"a\",\"param\":[404,202]}");
  peer->sendPayload("[\"SET\", \"tally\", 490, 0, 0]\n{\"id\":\"b\"}");
  std::vector<std::string> answers;
  for (int i = 0; i < 3; ++i) {
    answers.push_back(peer->readFrame());
  }
  EXPECT_EQ(answers[0],
            "[\"RSP\", \"device\", 101, 490, 0]\n{\"id\":\"a\",\"requestCommand\":\"GET\","
            "\"statusCode\":404,\"statusMsg\":\"Not Found\"}");
  EXPECT_NE(answers[1].find("\"statusCode\":202"), std::string::npos);
  EXPECT_EQ(answers[2],
            "[\"RSP\", \"tally\", 101, 490, 0]\n{\"id\":\"b\",\"requestCommand\":\"SET\","
            "\"statusCode\":200,\"statusMsg\":\"OK\"}");
  EXPECT_EQ(record_.copy(),
            (std::vector<std::string>{"link 1", "link 1", "message nobody", "message nobody",
                                      "message device", "message device", "message tally",
                                      "message tally"}));
}

TEST_F(InterfaceClientTest, LoginAnnouncesTheHandlersInterfaces) {
  auto client = makeClient();
  client->addHandler(std::make_unique<RecordingHandler>(record_, "a", "[{\"name\":\"A\"},2]"));
  client->addHandler(std::make_unique<RecordingHandler>(record_, "b"));
  client->addHandler(std::make_unique<RecordingHandler>(record_, "c", "[\"C\"]"));
  ASSERT_EQ(client->connect(), 0);
  auto peer = acceptLink();
  EXPECT_NE(login_.find("\"version\":1},\"interface\":[{\"name\":\"A\"},2,\"C\"]}}"),
            std::string::npos)
      << login_;
}

TEST_F(InterfaceClientTest, StandbyDropsTheHandlersAndAnyOtherRoleLoadsTheDatabase) {
  auto client = makeClient();
  client->loadActiveDatabase();
  ASSERT_EQ(client->connect(), 0);
  auto peer = acceptLink();
  struct Step {
    const char* role;
    int alive;
    int loads;
  };
  for (const Step& step : {Step{"active", 1, 1}, Step{"standby", 0, 1}, Step{"standby", 0, 1},
                           Step{"master", 1, 2}, Step{"active", 1, 2}}) {
    announceRole(*peer, step.role);
    EXPECT_EQ(peer->readFrame(),
              "[\"RSP\", \"system\", 101, 2, 0]\n{\"id\":\"r\",\"requestCommand\":\"SET\","
              "\"statusCode\":200,\"statusMsg\":\"OK\"}");
    EXPECT_EQ(record_.alive, step.alive) << step.role;
    EXPECT_EQ(loads_, step.loads) << step.role;
  }
  // A message without the state, or with one that is no string, goes to the handlers.
  const auto before = record_.copy().size();
  peer->sendPayload("[\"SET\", \"system\", 2, 0, 0]\n{\"param\":{\"mdxMasterState\":1}}");
  peer->sendPayload("[\"RSP\", \"system\", 2, 0, 0]\nno json");
  EXPECT_TRUE(eventually([&] { return record_.copy().size() == before + 2; }));
}

TEST_F(InterfaceClientTest, StartedWithoutDatabaseTheFirstOtherRoleLoadsIt) {
  auto client = makeClient(true);
  ASSERT_EQ(client->connect(), 0);
  auto peer = acceptLink();
  announceRole(*peer, "standby");
  peer->readFrame();
  EXPECT_EQ(loads_, 0);
  announceRole(*peer, "active");
  peer->readFrame();
  EXPECT_EQ(loads_, 1);
}

TEST_F(InterfaceClientTest, ForwardedMessagesKeepTheirSourceAndTheirBytes) {
  auto client = makeClient();
  ASSERT_EQ(client->connect(), 0);
  auto peer = acceptLink();
  const std::string payload =
      "[\"NOT\", \"route\", 100, 7, 0]\n{ \"id\" : \"x\",\t\"big\":12345678901234567890, \"f\":1.0 "
      "}";
  auto buffer = std::make_unique<char[]>(payload.size() + 1);
  payload.copy(buffer.get(), payload.size());
  PellInternalMessage message(std::move(buffer));
  message.viewBody();
  EXPECT_EQ(client->forwardMessage(message), 0);
  EXPECT_EQ(peer->readFrame(), payload);
}

TEST_F(InterfaceClientTest, AShutGateHoldsEveryMessageUntilItOpens) {
  auto client = makeClient();
  client->startGate().shut();
  ASSERT_EQ(client->connect(), 0);
  auto peer = acceptLink();
  announceRole(*peer, "standby");
  peer->sendPayload("[\"GET\", \"device\", 490, 0, 0]\n{\"id\":\"a\"}");
  EXPECT_FALSE(peer->hasFrameWithin(std::chrono::milliseconds(50)));
  client->loadActiveDatabase();
  EXPECT_EQ(record_.alive, 1);
  client->startGate().open();
  peer->readFrame();
  EXPECT_EQ(record_.alive, 0);  // the role that waited at the gate was followed
  EXPECT_FALSE(peer->hasFrameWithin(std::chrono::milliseconds(50)));
}

TEST_F(InterfaceClientTest, HandlersHearOfEveryChangeOfTheLink) {
  auto client = makeClient();
  client->loadActiveDatabase();
  ASSERT_EQ(client->connect(), 0);
  acceptLink().reset();
  auto peer = acceptLink();
  ASSERT_TRUE(eventually([&] { return record_.copy().size() == 3; }));
  EXPECT_EQ(record_.copy(), (std::vector<std::string>{"link 1", "link 0", "link 1"}));
  // The question for the role after the loss met no link.
  EXPECT_EQ(log_.count(LOG_WARNING, "PellInternalClient::sendMessage - not connected.\n"), 1);
}

TEST_F(InterfaceClientTest, RolesThatChangeDuringStartUpEndInTheLastOne) {
  for (int i = 0; i < test::repetitions(200); ++i) {
    record_.seen.clear();
    auto client = makeClient();
    client->startGate().shut();
    ASSERT_EQ(client->connect(), 0);
    auto peer = acceptLink();
    std::thread roles([&] {
      announceRole(*peer, "standby");
      announceRole(*peer, "active");
      announceRole(*peer, "standby");
    });
    client->loadActiveDatabase();
    client->startGate().open();
    roles.join();
    for (int n = 0; n < 3; ++n) {
      peer->readFrame();
    }
    ASSERT_EQ(record_.alive, 0);
    if (i % 2 == 0) {
      announceRole(*peer, "active");  // destruction may meet a handler or not
    }
    client.reset();
    ASSERT_EQ(record_.alive, 0);
  }
}

}  // namespace
}  // namespace valtor
