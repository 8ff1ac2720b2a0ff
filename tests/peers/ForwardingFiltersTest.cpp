#include <gtest/gtest.h>
#include <string>

#include "peers/DispatcherPeerClient.h"
#include "peers/ForwardingFilters.h"
#include "peers/MasterBus.h"
#include "peers/ValtorRouterPeerConnection.h"
#include "peers/ValtorRouterPeerManager.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"

namespace valtor {
namespace {

using test::ConsoleCapture;
using test::MasterBus;
using test::received;

const char* const kPass = nullptr;
const char* const kType = "commandTypeSupported";
const char* const kConfig = "isConnectionPointConfig";
const char* const kSystem = "isSystemMessage";
const char* const kReqID = "reqIDSupported";

struct Case {
  const char* kind;
  const char* path;
  int source;
  int destination;
  const char* body;
  const char* dbRequestHost;
  // The blocking rule of each rule set, null when the message passes.
  const char* nodeToPeer;
  const char* routerToPeer;
  const char* nodeToMaster;
  const char* routerToMaster;
};

const char* const kPlain = R"({ "id" : "1@2.aa" })";
const char* const kInfoGET = R"({"id":"1@2.aa","objectName":[7,"x","deviceInfo"]})";
const char* const kInfoRSP = R"({"id":"1@2.aa","param":{"deviceInfo":12345678901234567890}})";

const Case kCases[] = {
    // Commands, and the connection ids that may send them.
    {"CMD", "route", 490, 0, kPlain, "", kType, kPass, kType, kPass},
    {"CMD", "route", 2, 0, kPlain, "", kType, kPass, kType, kPass},
    {"CMD", "route", 3, 0, kPlain, "", kType, kPass, kType, kPass},
    {"CMD", "route", 4, 0, kPlain, "", kType, kPass, kType, kReqID},
    {"CMDRSP", "route", 2, 0, kPlain, "", kType, kPass, kType, kReqID},
    {"CMDRSP", "route", 100, 0, kPlain, "", kType, kPass, kType, kPass},
    {"CMDNOT", "route", 100, 0, kPlain, "", kType, kPass, kType, kPass},
    {"GET", "route", 2, 0, kPlain, "", kPass, kPass, kType, kReqID},
    {"GET", "route", 10000, 0, kPlain, "", kPass, kPass, kType, kReqID},
    // Answers and notifications.
    {"RSP", "route", 100, 0, kPlain, "", kPass, kPass, kPass, kPass},
    {"NOT", "route", 490, 0, kPlain, "", kPass, kPass, kPass, kPass},
    {"ACK", "route", 100, 0, kPlain, "", kPass, kPass, kPass, kPass},
    {"NAK", "route", 100, 0, kPlain, "", kPass, kPass, kPass, kPass},
    {"RSP", "route", 101, 0, kPlain, "", kPass, kPass, kPass, kReqID},
    // The configuration of either side.
    {"UPDATE", "device", 100, 0, kPlain, "", kPass, kConfig, kType, kConfig},
    {"SET", "device", 100, 0, kPlain, "", kPass, kConfig, kType, kConfig},
    {"DEL", "device", 100, 0, kPlain, "", kPass, kConfig, kType, kConfig},
    {"RSP", "device", 100, 0, kPlain, "", kPass, kConfig, kPass, kPass},
    {"NOT", "device", 100, 0, kPlain, "", kPass, kConfig, kPass, kConfig},
    {"GET", "device", 100, 0, kPlain, "", kPass, kPass, kType, kConfig},
    {"SET", "device.a", 100, 0, kPlain, "", kPass, kPass, kType, kPass},
    {"SET", "Device", 100, 0, kPlain, "", kPass, kPass, kType, kPass},
    // System messages.
    {"SET", "system", 490, 100, kPlain, "", kPass, kPass, kType, "isSystemSETMessage"},
    {"SET", "system", 490, 101, kPlain, "", kPass, kSystem, kType, "isSystemSETMessage"},
    {"DEL", "system", 100, 490, kPlain, "", kPass, kSystem, kType, "isSystemSETMessage"},
    {"UPDATE", "system", 100, 0, kPlain, "", kPass, kSystem, kType, "isSystemSETMessage"},
    {"NOT", "system", 489, 100, kPlain, "", kPass, kSystem, kPass, kReqID},
    {"GET", "system", 100, 0, kPlain, "", kPass, kSystem, kType, kPass},
    {"SET", "system.x", 100, 0, kPlain, "", kPass, kPass, kType, kPass},
    // Device information.
    {"GET", "device", 490, 0, kInfoGET, "", kPass, "isDeviceInfoGET", kType, kConfig},
    {"GET", "device.a", 490, 0, kInfoGET, "", kPass, kPass, kType, kPass},
    {"GET", "device", 490, 0, R"({"objectName":["deviceinfo"]})", "", kPass, kPass, kType, kConfig},
    {"GET", "device", 490, 0, "no JSON", "", kPass, kPass, kType, kConfig},
    {"RSP", "device", 100, 0, kInfoRSP, "", kPass, kConfig, kPass, "isDeviceInfoRSP"},
    {"RSP", "route", 100, 0, kInfoRSP, "", kPass, kPass, kPass, kPass},
    {"RSP", "device", 100, 0, R"({"deviceInfo":1,"param":{}})", "", kPass, kConfig, kPass, kPass},
    // Database responses belong to the host that asked.
    {"RSP", "db", 100, 0, kPlain, "", kPass, kPass, kPass, kPass},
    {"RSP", "db", 100, 0, kPlain, "aa", kPass, kPass, kPass, kPass},
    {"RSP", "db", 100, 0, kPlain, "bb", kPass, "isDatabaseRSPForMe", kPass, kPass},
    {"RSP", "db", 100, 0, kPlain, "AA", kPass, "isDatabaseRSPForMe", kPass, kPass},
    {"RSP", "db", 100, 0, R"({"param":{"id":"1@2.aa"}})", "bb", kPass, kPass, kPass, kPass},
    {"RSP", "db", 100, 0, R"({"id":12,"x":"1@2.aa"})", "bb", kPass, kPass, kPass, kPass},
    {"RSP", "db", 100, 0, R"({"id":"1@2"})", "bb", kPass, kPass, kPass, kPass},
    {"RSP", "db", 100, 0, "no JSON", "bb", kPass, kPass, kPass, kPass},
    {"RSP", "db.x", 100, 0, kPlain, "bb", kPass, kPass, kPass, kPass},
    {"NOT", "db", 100, 0, kPlain, "bb", kPass, kPass, kPass, kPass},
};

std::string payloadOf(const Case& one) {
  return std::string("[\"") + one.kind + "\", \"" + one.path + "\", " + std::to_string(one.source) +
         ", " + std::to_string(one.destination) + ", 0]\n" + one.body;
}

// A peer whose last forwarded database request came from the host, if there is one.
void askAs(DispatcherPeerClient& peer, MasterBus& bus, const std::string& host) {
  peer.setForwarder(&bus);
  if (!host.empty()) {
    peer.onMessage(received("[\"GET\", \"db\", 100, 0, 0]\n{\"id\":\"5@6." + host + "\"}"));
  }
}

TEST(ForwardingFilters, BlockByTheFirstRuleThatAppliesAndLeaveTheBytesAlone) {
  const test::LogCapture log;
  const ConsoleCapture console;
  MasterBus bus;
  ValtorNodeConnectionPointManager nodes("nodes", &bus);
  ValtorRouterPeerManager routers("routers", &bus);
  DispatcherPeerClient node;
  for (const Case& one : kCases) {
    const std::string payload = payloadOf(one);
    const PellInternalMessage message = received(payload);
    ValtorRouterPeerConnection router("127.0.0.2", 1, "router");
    askAs(router, bus, one.dbRequestHost);
    EXPECT_STREQ(nodes.filterToPeer(node, message).rule, one.nodeToPeer) << payload;
    EXPECT_STREQ(routers.filterToPeer(router, message).rule, one.routerToPeer) << payload;
    EXPECT_STREQ(node.filterToMaster(message).rule, one.nodeToMaster) << payload;
    EXPECT_STREQ(router.filterToMaster(message).rule, one.routerToMaster) << payload;
    EXPECT_EQ(router.filterToMaster(message).pass, one.routerToMaster == nullptr) << payload;
    EXPECT_EQ(message.encode(), payload);
  }
  const PellInternalMessage unknown(MessageKind::Unknown, "route");
  EXPECT_STREQ(nodes.filterToPeer(node, unknown).rule, kType);
  EXPECT_STREQ(node.filterToMaster(unknown).rule, kType);
}

TEST(ForwardingFilters, SayOnTheConsoleWhatTheyDecided) {
  const ConsoleCapture console;
  routerMasterToPeer(received("[\"SET\", \"system\", 490, 100, 0]\n{ \"a\" : [1, 2] }"), "");
  routerMasterToPeer(received("[\"SET\", \"system\", 490, 100, 0]\n"), "");
  EXPECT_TRUE(console.contains("\tPassed System Message: {\"a\":[1,2]}\n"));
  EXPECT_TRUE(console.contains("\tPassed System Message: null\n"));

  routerMasterToPeer(received("[\"RSP\", \"db\", 100, 0, 0]\n{\"param\":{\"id\":\"a.b\"}}"), "");
  EXPECT_FALSE(console.contains("RAPIDJSON"));
  routerMasterToPeer(received("[\"RSP\", \"db\", 100, 0, 0]\n{\"id\":\"a.b\"}"), "");
  EXPECT_TRUE(console.contains("\n*** RAPIDJSON DB FILTER TOOK "));
  EXPECT_TRUE(console.contains(" us ***\n"));

  const PellInternalMessage message = received("[\"DEL\", \"device\", 4, 5, 0]\n{}");
  traceBlocked("master->peer", message, "someRule");
  traceBlocked("peer->master", message, nullptr);
  EXPECT_TRUE(console.contains(
      "\tmaster->peer filter blocked [\"DEL\", \"device\", 4, 5, 0] (rule:someRule)\n"));
  EXPECT_TRUE(console.contains(
      "\tpeer->master filter blocked [\"DEL\", \"device\", 4, 5, 0] (rule:\?\?)\n"));
}

}  // namespace
}  // namespace valtor
