#include <atomic>
#include <gtest/gtest.h>

#include "app/util/Watchdog.h"
#include "bus/BusSupport.h"
#include "bus/ValtorInterfaceClient.h"
#include "bus/message/RSPMessage.h"
#include "support/Eventually.h"
#include "support/NotifySocket.h"
#include "support/ScriptedNode.h"

namespace valtor {
namespace {

using test::ScriptedPeer;
using Lines = std::vector<std::string>;

// What a test sees of the handlers that the client owns.
struct HandlerRecord : test::Record {
  std::atomic<int> alive{0};
  std::atomic<bool> behind{false};
};

class RecordingHandler : public IPellaInternalProtocolHandler {
 public:
  RecordingHandler(HandlerRecord& record, std::string takes)
      : record_(record), takes_(std::move(takes)) {
    ++record_.alive;
  }
  ~RecordingHandler() override { --record_.alive; }

  // Takes one path; answers a GET with two responses.
  bool handleMessage(const PellInternalMessage& message, ResponseList& responses) override {
    record_.add(takes_ + ": " + message.getPath());
    if (message.getPath() == takes_ && message.getKind() == MessageKind::GET) {
      responses.push_back(std::make_unique<RSPMessage>(message, 404));
      responses.push_back(std::make_unique<RSPMessage>(message, 202));
    }
    return message.getPath() == takes_;
  }
  // A list of its own for each path; none for "tally".
  JSONPtr getInterfaceJSON() override {
    return JSONPtr(takes_ == "tally" ? nullptr : cJSON_Parse(("[\"" + takes_ + "\",1]").c_str()));
  }
  void onBusConnectionChanged(bool connected) override { record_.add(connected ? "up" : "down"); }
  bool isBehind() const override { return record_.behind; }
  void catchUp() override { record_.behind = false; }

 private:
  HandlerRecord& record_;
  const std::string takes_;
};

// An interface client between a scripted node and handlers that record.
class InterfaceClientTest : public testing::Test {
 protected:
  InterfaceClientTest() {
    PellInternalClient::Timing timing;
    timing.reconnectDelay = std::chrono::milliseconds(20);
    client_.setTiming(timing);
    client_.setDatabaseLoader([this](ValtorInterfaceClient&) {
      if (++loads_ == failingLoad_) {
        throw std::runtime_error("no database");
      }
      addHandler("device");
    });
  }

  void addHandler(const std::string& takes) {
    client_.addHandler(std::make_unique<RecordingHandler>(record_, takes));
  }
  // Accepts a link and reads login, subscriptions and the question for the role.
  std::unique_ptr<ScriptedPeer> acceptLink() {
    auto peer = node_.accept();
    for (std::string& frame : first_) {
      frame = peer->readFrame();
    }
    return peer;
  }

  test::ScriptedNode node_;
  HandlerRecord record_;
  std::atomic<int> loads_{0};
  std::atomic<int> failingLoad_{0};
  std::string first_[3];
  ValtorInterfaceClient client_{"127.0.0.1", node_.port(), "valtorRemote", true, "db/"};
};

TEST_F(InterfaceClientTest, LogsInWithTheHandlersInterfacesAndSubscribesToItsEightPaths) {
  for (const char* takes : {"device", "tally", "mv"}) {
    addHandler(takes);
  }
  client_.connect();
  auto peer = acceptLink();
  const auto& [login, list, role] = first_;
  EXPECT_NE(login.find(R"({"login":{"name":"valtorRemote","connID":101,"version":1},)"
                       R"("interface":["device",1,"mv",1]}})"),
            std::string::npos);
  std::string paths;
  for (const std::string path :
       {"device", "db", "system", "route", "tally", "controller", "mdxi.system", "mv"}) {
    paths += (paths.empty() ? "" : ",") + (R"({"path":")" + path + R"(","receiveAll":true})");
  }
  EXPECT_NE(list.find(R"({"subscribeList":[)" + paths + "]}"), std::string::npos) << list;
  EXPECT_NE(role.find(R"("param":{"objectName":["mdxMasterState"]}})"), std::string::npos);
}

TEST_F(InterfaceClientTest, EveryHandlerHearsOfAllAndTheAnswersGoOutInOrder) {
  addHandler("device");
  addHandler("tally");
  client_.connect();
  auto peer = acceptLink();
  peer->sendPayload("[\"GET\", \"nobody\", 490, 0, 0]\n{\"id\":\"n\"}");
  peer->sendPayload("[\"GET\", \"device\", 490, 0, 0]\n{\"id\":\"a\"}");
  peer->sendPayload("[\"SET\", \"tally\", 490, 0, 0]\n{\"id\":\"b\"}");
  const std::string get =
      "[\"RSP\", \"device\", 101, 490, 0]\n{\"id\":\"a\",\"requestCommand\":\"GET\",";
  EXPECT_EQ(peer->readFrame(), get + R"("statusCode":404,"statusMsg":"Not Found"})");
  EXPECT_EQ(peer->readFrame(), get + R"("statusCode":202,"statusMsg":"Accepted"})");
  EXPECT_EQ(peer->readFrame(),
            "[\"RSP\", \"tally\", 101, 490, 0]\n"
            R"({"id":"b","requestCommand":"SET","statusCode":200,"statusMsg":"OK"})");
  // What is only forwarded keeps its source and its bytes.
  const std::string forwarded = "[\"NOT\", \"route\", 100, 7, 0]\n{ \"big\":12345678901234567890 }";
  client_.forwardMessage(test::received(forwarded));
  EXPECT_EQ(peer->readFrame(), forwarded);
  peer->close();
  peer = acceptLink();
  EXPECT_EQ(record_.lines(),
            (Lines{"up", "up", "device: nobody", "tally: nobody", "device: device", "tally: device",
                   "device: tally", "tally: tally", "down", "down", "up", "up"}));
}

TEST_F(InterfaceClientTest, StandbyDropsTheHandlersAndAnyOtherRoleLoadsTheDatabase) {
  client_.connect();
  auto peer = acceptLink();
  failingLoad_ = 3;  // refused, and tried again with the next word about the role, asked for
  const struct {
    const char* role;
    const char* status;
    int alive, loads;
  } steps[] = {{"standby", "200", 0, 0}, {"active", "200", 1, 1},  {"master", "200", 1, 1},
               {"standby", "200", 0, 1}, {"standby", "200", 0, 1}, {"master", "200", 1, 2},
               {"standby", "200", 0, 2}, {"active", "400", 0, 3},  {"active", "200", 1, 4}};
  for (const auto& [role, status, alive, loads] : steps) {
    peer->sendPayload("[\"SET\", \"system\", 2, 0, 0]\n{\"param\":{\"mdxMasterState\":\"" +
                      std::string(role) + "\"}}");
    EXPECT_EQ(peer->readFrame().find("[\"RSP\", \"system\", 101, 2, 0]\n"
                                     "{\"id\":\"\",\"requestCommand\":\"SET\",\"statusCode\":" +
                                     std::string(status) + ","),
              0U);
    EXPECT_EQ(record_.alive, alive) << role;
    EXPECT_EQ(loads_, loads) << role;
    if (status == std::string("400")) {
      EXPECT_NE(peer->readFrame().find(R"("objectName":["mdxMasterState"])"), std::string::npos);
    }
  }
  // A message without the state, or with one that is no string, goes to the handlers.
  peer->sendPayload("[\"SET\", \"system\", 2, 0, 0]\n{\"param\":{\"mdxMasterState\":1}}");
  peer->sendPayload("[\"RSP\", \"system\", 2, 0, 0]\nno json");
  EXPECT_TRUE(test::eventually([&] { return record_.lines().size() == 2; }));
}

TEST_F(InterfaceClientTest, ARoleThatCannotBeFollowedIsAskedForLessAndLessOften) {
  client_.connect();
  auto peer = acceptLink();
  const auto begin = std::chrono::steady_clock::now();
  // After 20, 40, 80 and 160 ms, though all seems done between the question and its answer; less
  // where an answer takes its time.
  for (int load = 1; load <= 5; ++load) {
    failingLoad_ = load;
    peer->sendPayload(
        "[\"SET\", \"system\", 2, 0, 0]\n{\"param\":{\"mdxMasterState\":\"active\"}}");
    EXPECT_NE(peer->readFrame().find("\"statusCode\":400"), std::string::npos);
    if (load < 5) {
      EXPECT_NE(peer->readFrame().find("mdxMasterState"), std::string::npos);
    }
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(150));
}

TEST_F(InterfaceClientTest, AnIdleClientCatchesUpOnceTheGateIsOpenUnlessItIsClosed) {
  client_.connect();
  auto peer = acceptLink();
  client_.startGate().shut();
  record_.behind = true;
  addHandler("device");
  client_.doubtRole();
  EXPECT_FALSE(test::eventually([&] { return !record_.behind; }, std::chrono::milliseconds(60)));
  client_.startGate().open();
  EXPECT_NE(peer->readFrame().find("mdxMasterState"), std::string::npos);
  EXPECT_FALSE(record_.behind);
  client_.startGate().shut();
  record_.behind = true;
  addHandler("tally");
  client_.close();
  EXPECT_TRUE(record_.behind);
}

TEST_F(InterfaceClientTest, WhatAFullSocketDidNotTakeIsAskedAgainWhileNothingArrives) {
  client_.connect();
  auto peer = acceptLink();
  const std::string note = "[\"NOT\", \"route\", 100, 7, 0]\n" + std::string(100'000, ' ');
  const PellInternalMessage filler = test::received(note);
  for (int refused = 0; refused < 3;) {
    refused = client_.forwardMessage(filler) == 0 ? 0 : refused + 1;
  }
  const auto gaveUp = [] { return test::countOf(Warning::SendGaveUp); };
  const uint64_t before = gaveUp();
  client_.subscribe("extra");
  client_.doubtRole();
  ASSERT_TRUE(test::eventually([&] { return gaveUp() >= before + 3; }));  // both once more
  std::string got;
  while (got.find("extra") == std::string::npos ||
         got.find("mdxMasterState") == std::string::npos) {
    const std::string frame = peer->readFrame();
    got += frame != note ? frame : "";
  }
}

TEST_F(InterfaceClientTest, FeedsTheWatchdogIdleAndAtTheGateButNotBehindAHandlerThatHangs) {
  const test::NotifySocket manager("@valtor-watchdog-client");
  Watchdog watchdog;
  client_.setWatchdog(&watchdog);
  addHandler("device");
  client_.startGate().shut();
  client_.connect();
  auto peer = acceptLink();
  EXPECT_TRUE(manager.isFed(3));
  const auto isBusy = [&] { return client_.figures().queue.delay.count() > 0; };
  peer->sendPayload("[\"NOT\", \"device\", 490, 0, 0]\n{}");
  ASSERT_TRUE(test::eventually([&] { return isBusy() && client_.figures().queue.chunks == 0; }));
  EXPECT_TRUE(manager.isFed(3));
  client_.startGate().open();
  ASSERT_TRUE(test::eventually([&] { return !isBusy(); }));
  client_.forEachHandler([&](IPellaInternalProtocolHandler&) {  // which holds the handlers
    peer->sendPayload("[\"NOT\", \"device\", 490, 0, 0]\n{}");
    ASSERT_TRUE(test::eventually(isBusy));
    EXPECT_TRUE(
        test::eventually([&] { return manager.next(std::chrono::milliseconds(400)).empty(); }));
  });
  EXPECT_TRUE(manager.isFed(3));
  client_.close();
}

}  // namespace
}  // namespace valtor
