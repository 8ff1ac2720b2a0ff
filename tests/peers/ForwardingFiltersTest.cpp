#include "bus/BusSupport.h"
#include "peers/DatabaseIdHandler.h"
#include "peers/ForwardingFilters.h"
#include "support/Vocabulary.h"

namespace valtor {
namespace {

const char* const kPass = nullptr;
const char* const kType = "commandTypeSupported";
const char* const kConfig = "isConnectionPointConfig";
const char* const kSystem = "isSystemMessage";
const char* const kSystemSET = "isSystemSETMessage";
const char* const kReqID = "reqIDSupported";

const char* const kPlain = R"({ "id" : "1@2.aa" })";
const char* const kInfoGET = R"({"id":"1@2.aa","objectName":[7,"x","deviceInfo"]})";
const char* const kInfoRSP = R"({"id":"1@2.aa","param":{"deviceInfo":12345678901234567890}})";

struct Case {
  const char* kind;
  const char* path;
  const char* connIDs;  // source and destination
  const char* body;
  const char* dbRequestHost;
  // The blocking rule, null when the message passes: master to node peer, master to router, node
  // peer to master, router to master.
  const char* rules[4];
};

const Case kCases[] = {
    // Commands and requests, and the connection ids that may send them.
    {"CMD", "route", "2, 0", kPlain, "", {kType, kPass, kType, kPass}},
    {"CMD", "route", "3, 0", kPlain, "", {kType, kPass, kType, kPass}},
    {"CMD", "route", "4, 0", kPlain, "", {kType, kPass, kType, kReqID}},
    {"CMDRSP", "route", "2, 0", kPlain, "", {kType, kPass, kType, kReqID}},
    {"GET", "route", "10000, 0", kPlain, "", {kPass, kPass, kType, kReqID}},
    // Answers and notifications.
    {"RSP", "route", "101, 0", kPlain, "", {kPass, kPass, kPass, kReqID}},
    {"NAK", "route", "100, 0", kPlain, "", {kPass, kPass, kPass, kPass}},
    // The configuration of either side.
    {"UPDATE", "device", "100, 0", kPlain, "", {kPass, kConfig, kType, kConfig}},
    {"SET", "device", "100, 0", kPlain, "", {kPass, kConfig, kType, kConfig}},
    {"DEL", "device", "100, 0", kPlain, "", {kPass, kConfig, kType, kConfig}},
    {"RSP", "device", "100, 0", kPlain, "", {kPass, kConfig, kPass, kPass}},
    {"NOT", "device", "100, 0", kPlain, "", {kPass, kConfig, kPass, kConfig}},
    {"GET", "device", "100, 0", kPlain, "", {kPass, kPass, kType, kConfig}},
    {"SET", "device.a", "100, 0", kPlain, "", {kPass, kPass, kType, kPass}},
    // System messages.
    {"SET", "system", "490, 100", kPlain, "", {kPass, kPass, kType, kSystemSET}},
    {"UPDATE", "system", "490, 101", kPlain, "", {kPass, kSystem, kType, kSystemSET}},
    {"DEL", "system", "100, 490", kPlain, "", {kPass, kSystem, kType, kSystemSET}},
    {"GET", "system", "100, 100", kPlain, "", {kPass, kSystem, kType, kPass}},
    // Device information.
    {"GET", "device", "490, 0", kInfoGET, "", {kPass, "isDeviceInfoGET", kType, kConfig}},
    {"RSP", "device", "100, 0", kInfoRSP, "", {kPass, kConfig, kPass, "isDeviceInfoRSP"}},
    // Database responses belong to the host that asked.
    {"RSP", "db", "100, 0", kPlain, "", {kPass, kPass, kPass, kPass}},
    {"RSP", "db", "100, 0", kPlain, "aa", {kPass, kPass, kPass, kPass}},
    {"RSP", "db", "100, 0", kPlain, "AA", {kPass, "isDatabaseRSPForMe", kPass, kPass}},
    {"RSP", "db", "100, 0", R"({"id":"1@2"})", "bb", {kPass, kPass, kPass, kPass}},
};

TEST(ForwardingFilters, BlockByTheFirstRuleThatAppliesAndLeaveTheBytesAlone) {
  const test::ConsoleCapture console;
  for (const Case& one : kCases) {
    const std::string payload = std::string("[\"") + one.kind + "\", \"" + one.path + "\", " +
                                one.connIDs + ", 0]\n" + one.body;
    const PellInternalMessage message = test::received(payload);
    const FilterResult results[] = {nodeMasterToPeer(message),
                                    routerMasterToPeer(message, one.dbRequestHost),
                                    nodePeerToMaster(message), routerPeerToMaster(message)};
    for (int i = 0; i < 4; ++i) {
      EXPECT_STREQ(results[i].rule, one.rules[i]) << payload << ", direction " << i;
      EXPECT_EQ(results[i].pass, one.rules[i] == nullptr) << payload << ", direction " << i;
    }
    EXPECT_EQ(message.encode(), payload);
  }
  EXPECT_TRUE(console.contains("\tPassed System Message: {\"id\":\"1@2.aa\"}\n"));
  EXPECT_TRUE(console.contains("\n*** RAPIDJSON DB FILTER TOOK "));
}

TEST(DatabaseIdHandler, TakesTheFirstStringAfterTheTopLevelIdAsFarAsOthersFollow) {
  const auto nested = [](std::size_t depth) {
    return R"({"param":)" + std::string(depth, '[') + std::string(depth, ']') +
           R"(,"id":"7@1.aa"})";
  };
  const std::pair<std::string, const char*> cases[] = {
      {R"({"requestCommand":"GET","param":{"id":"no.no"},"id":"7@1.aa"})", "7@1.aa"},
      {R"({"param":[{"id":"no.no"}]})", ""},
      {R"({"id":7,"name":"no.no"})", ""},
      {R"({"param": }, "id":"7@1.aa"})", ""},
      {nested(999), "7@1.aa"},
      {nested(1'000'000), ""},
  };
  for (const auto& [text, id] : cases) {
    EXPECT_EQ(DatabaseIdHandler::findId(text.c_str()), id) << text.substr(0, 100);
  }
}

TEST(DatabaseIdHandler, ReadsNoFurtherThanTheId) {
  const std::string text = R"({"id":"7@1.aa","param":")" + std::string(1'000'000, 'x') + "\"}";
  rapidjson::Reader reader;
  rapidjson::StringStream stream(text.c_str());
  DatabaseIdHandler handler;
  reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
  EXPECT_EQ(stream.Tell(), text.find(','));
}

}  // namespace
}  // namespace valtor
