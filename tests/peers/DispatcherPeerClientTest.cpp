#include <gtest/gtest.h>
#include <string>
#include <syslog.h>

#include "app/util/OwnedJSON.h"
#include "peers/DispatcherPeerClient.h"
#include "peers/MasterBus.h"
#include "peers/ValtorRouterPeerConnection.h"
#include "support/ConsoleCapture.h"
#include "support/Eventually.h"
#include "support/LogCapture.h"
#include "support/ScriptedNode.h"

namespace valtor {
namespace {

using test::bodyOf;
using test::ConsoleCapture;
using test::eventually;
using test::LogCapture;
using test::MasterBus;
using test::received;
using test::ScriptedNode;

const char* const kTCP = R"({"type":"tcp","ipAddress":"127.0.0.2","port":4000,"server":true})";

TEST(DispatcherPeerClient, LoadFailuresSayWhatIsMissing) {
  const std::string phy = std::string("\"phy\":[") + kTCP + "]";
  struct Case {
    std::string text;
    const char* reason;
  };
  const Case cases[] = {
      {"null", "type not specified"},
      {"{}", "type not specified"},
      {R"({"type":7,)" + phy + R"(,"name":"n","uniqueID":"u"})", "type not specified"},
      {R"({"type":"t","name":"n","uniqueID":"u"})", "phy not specified"},
      {R"({"type":"t","phy":[],"name":"n","uniqueID":"u"})", "no valid phy found"},
      {std::string(R"({"type":"t","phy":)") + kTCP + "}", "no valid phy found"},
      {std::string(R"({"type":"t","phy":{"a":)") + kTCP + "}}", "no valid phy found"},
      {R"({"type":"t","phy":[{"type":"serial"}],"name":"n","uniqueID":"u"})", "no valid phy found"},
      {R"({"type":"t",)" + phy + R"(,"uniqueID":"u"})", "name not specified"},
      {R"({"type":"t",)" + phy + R"(,"name":[],"uniqueID":"u"})", "name not specified"},
      {R"({"type":"t",)" + phy + R"(,"name":"n"})", "uniqueID not specified"},
  };
  for (const Case& one : cases) {
    const LogCapture log;
    DispatcherPeerClient peer;
    const JSONPtr item(cJSON_Parse(one.text.c_str()));
    EXPECT_EQ(peer.loadFromJSON(item.get()), -1) << one.text;
    EXPECT_EQ(log.count(LOG_WARNING,
                        std::string("DispatcherPeerClient::loadFromJSON - ") + one.reason + ".\n"),
              1)
        << one.text;
  }
}

TEST(DispatcherPeerClient, KeepsTheTCPPhysAndConnectsToTheLastOne) {
  const LogCapture log;
  const std::string text =
      std::string(R"({"type":"Valtor Peer","name":"n","uniqueID":"u","enabled":false,"phy":[)") +
      R"({"type":"serial","port":"/dev/a"},{"type":"x"},)" + kTCP +
      R"(,{"type":"tcp","ipAddress":"127.0.0.3","port":4001}]})";
  DispatcherPeerClient peer;
  ASSERT_EQ(peer.loadFromJSON(parseJSON(text).get()), 0);
  EXPECT_EQ(log.count(LOG_WARNING, "DispatcherPeerClient::loadFromJSON - invalid phy details.\n"),
            1);
  EXPECT_EQ(peer.host(), "127.0.0.3");
  EXPECT_EQ(peer.port(), 4001);
  EXPECT_EQ(printJSON(peer.toJSON().get(), false),
            std::string(R"({"type":"Valtor Peer","name":"n","uniqueID":"u","phy":[)") + kTCP +
                R"(,{"type":"tcp","ipAddress":"127.0.0.3","port":4001,"server":false}],)" +
                R"("enabled":true,"connected":false})");

  DispatcherPeerClient older("127.0.0.9", 9, "bus");
  older.updateFrom(peer);
  EXPECT_EQ(older.uniqueID() + older.descriptionName() + older.type(), "unValtor Peer");
  EXPECT_EQ(older.physCount(), 2U);
  EXPECT_EQ(peer.physCount(), 0U);
  EXPECT_EQ(older.host(), "127.0.0.9");
}

TEST(DispatcherPeerClient, WithoutAPlaceToConnectToNothingStarts) {
  const LogCapture log;
  DispatcherPeerClient peer;
  const auto item =
      parseJSON(R"({"type":"t","name":"n","uniqueID":"u","phy":[{"type":"tcp","port":-5}]})");
  ASSERT_EQ(peer.loadFromJSON(item.get()), 0);
  EXPECT_EQ(peer.connect(), -1);
  peer.waitTillComplete();  // returns at once: there are no threads
  EXPECT_FALSE(peer.isConnected());
}

TEST(DispatcherPeerClient, LogsInWithItsPathsAndAnnouncesItsID) {
  const LogCapture log;
  const ConsoleCapture console;
  struct Case {
    std::unique_ptr<DispatcherPeerClient> peer;
    const char* name;
    std::vector<std::string> paths;
  };
  Case cases[3];
  cases[0] = {std::make_unique<DispatcherPeerClient>(), "", {"device*", "controller*"}};
  cases[1] = {
      std::make_unique<DispatcherPeerClient>("", 0, "bus"), "bus", {"controller*", "device*"}};
  cases[2] = {std::make_unique<ValtorRouterPeerConnection>("", 0, "bus"),
              "bus",
              {"controller*", "device*", "db", "route", "controller", "mdxi.system"}};
  for (Case& one : cases) {
    ScriptedNode node("127.0.0.2");
    one.peer->setEndpoint(node.address(), node.port());
    one.peer->connect();
    const auto link = node.accept();
    EXPECT_NE(link->readFrame().find(std::string("\"param\":{\"login\":{\"name\":\"") + one.name +
                                     "\",\"connID\":10000,\"version\":1}}}"),
              std::string::npos);
    std::string list;
    for (const std::string& path : one.paths) {
      list += (list.empty() ? "" : ",") + ("{\"path\":\"" + path + "\",\"receiveAll\":true}");
    }
    EXPECT_NE(link->readFrame().find("\"param\":{\"subscribeList\":[" + list + "]}}"),
              std::string::npos);
    EXPECT_FALSE(one.peer->isLocalBusClient());
    one.peer.reset();
  }
  EXPECT_TRUE(console.contains("DispatcherPeerClient needs ID\n"));
}

TEST(DispatcherPeerClient, HandsOnWhatPassesAsItWasReceived) {
  const LogCapture log;
  const ConsoleCapture console;
  MasterBus bus;
  ScriptedNode node("127.0.0.2");
  ValtorRouterPeerConnection peer(node.address(), node.port(), "bus");
  peer.setForwarder(&bus);
  peer.connect();
  const auto link = node.accept();
  const std::string answer = "[\"RSP\", \"route\", 100, 7, 0]\n{ \"id\":\"1@2.x\", \"n\": 1.50 }";
  const std::string status = "[\"NOT\", \"route\", 490, 0, 0]\n{\"big\":12345678901234567890}";
  link->sendPayload(answer);
  link->sendPayload("[\"GET\", \"route\", 2, 0, 0]\n{}");
  link->sendPayload(status);
  ASSERT_TRUE(eventually([&] { return bus.payloads().size() == 2; }));
  EXPECT_EQ(bus.payloads(), (std::vector<std::string>{answer, status}));
  EXPECT_TRUE(console.contains(
      "\tpeer->master filter blocked [\"GET\", \"route\", 2, 0, 0] (rule:reqIDSupported)\n"));
}

TEST(DispatcherPeerClient, RemembersWhoAskedTheDatabaseLast) {
  const ConsoleCapture console;
  MasterBus bus;
  ValtorRouterPeerConnection peer("127.0.0.2", 1, "bus");
  peer.setForwarder(&bus);
  const auto ask = [&](int source, const std::string& id) {
    return peer.onMessage(received("[\"GET\", \"db\", " + std::to_string(source) +
                                   ", 0, 0]\n{\"id\":\"" + id + "\"}"));
  };
  EXPECT_EQ(peer.dbRequestHost(), "");
  EXPECT_EQ(ask(100, "1@2.aa.bb"), 0);
  EXPECT_EQ(peer.dbRequestHost(), "aa.bb");
  EXPECT_EQ(ask(2, "1@2.cc"), -1);  // blocked
  EXPECT_EQ(peer.dbRequestHost(), "aa.bb");
  EXPECT_EQ(ask(490, "1@2"), 0);
  EXPECT_EQ(peer.dbRequestHost(), "");
  EXPECT_EQ(bus.payloads().size(), 2U);

  peer.setForwarder(nullptr);
  EXPECT_EQ(ask(100, "1@2.dd"), -1);
  EXPECT_EQ(peer.dbRequestHost(), "");
  EXPECT_TRUE(console.contains("(rule:noForwarder)\n"));
}

}  // namespace
}  // namespace valtor
