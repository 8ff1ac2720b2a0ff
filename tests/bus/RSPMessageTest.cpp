#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <utility>

#include "ReceivedMessage.h"
#include "bus/RSPMessage.h"

namespace valtor {
namespace {

using test::received;

const std::string kRequest = "[\"GET\", \"device\", 490, 101, 0]\n{ \"id\":\"5@9\" }";
const std::string kAddress = "[\"RSP\", \"device\", 0, 490, 0]\n";

JSONPtr json(const char* text) { return JSONPtr(cJSON_Parse(text)); }

TEST(RSPMessage, EveryStatusHasItsText) {
  const std::pair<int, const char*> table[] = {{200, "OK"},
                                               {201, "Created"},
                                               {202, "Accepted"},
                                               {204, "No Content"},
                                               {210, "OK With Info"},
                                               {400, "Bad Request"},
                                               {403, "Forbidden"},
                                               {404, "Not Found"},
                                               {405, "Method Not Allowed"},
                                               {408, "Request Timeout"},
                                               {429, "Too Many Requests"},
                                               {480, "Connection Point Not Found"},
                                               {481, "Connection Point Disconnected"},
                                               {482, "Device Not Found"},
                                               {490, "Route Protected"},
                                               {491, "Resource Protected"},
                                               {492, "Breakaway Error"},
                                               {493, "No Rule"},
                                               {494, "No Resource"},
                                               {495, "No Access"},
                                               {496, "Out of Range"}};
  const PellInternalMessage request = received(kRequest);
  for (const auto& [code, text] : table) {
    EXPECT_STREQ(statusText(code), text);
    EXPECT_EQ(RSPMessage(request, code).getStatusCode(), code);
  }
  EXPECT_STREQ(statusText(0), "Unknown");
  for (const int code : {-1, 1, 199, 203, 401, 483, 497, 2147483647}) {
    EXPECT_STREQ(statusText(code), "") << code;
    EXPECT_EQ(RSPMessage(request, code).getStatusCode(), 0) << code;
  }
}

TEST(RSPMessage, BodiesHoldTheirMembersInOrder) {
  const PellInternalMessage request = received(kRequest);
  const std::string id = kAddress + "{\"id\":\"5@9\",";
  const std::string get = id + "\"requestCommand\":\"GET\",";
  const std::string ok = "\"statusCode\":200,\"statusMsg\":\"OK\"";
  EXPECT_EQ(RSPMessage(request, 404).encode(),
            get + "\"statusCode\":404,\"statusMsg\":\"Not Found\"}");
  EXPECT_EQ(RSPMessage(request, 401).encode(), get + "\"statusCode\":401,\"statusMsg\":\"\"}");
  EXPECT_EQ(RSPMessage(request, "cp1", 480, json("[1]")).encode(),
            get +
                "\"statusCode\":480,\"statusMsg\":\"Connection Point Not Found\","
                "\"objectName\":\"cp1\",\"details\":[1]}");
  EXPECT_EQ(RSPMessage(request, nullptr, 400, nullptr).encode(),
            get + "\"statusCode\":400,\"statusMsg\":\"Bad Request\"}");
  EXPECT_EQ(RSPMessage(request, "base", json("{\"a\":1}")).encode(),
            get + ok + ",\"objectBase\":\"base\",\"param\":{\"a\":1}}");
  EXPECT_EQ(
      RSPMessage(request, nullptr, json("[]"), RSPMessage::ValueKey::ParamDescriptor).encode(),
      get + ok + ",\"paramDescriptor\":[]}");
  EXPECT_EQ(
      RSPMessage({"device", 490, "5@9", MessageKind::Unknown}, "o", 200, json("7"), json("8"))
          .encode(),
      id + "\"requestCommand\":\"\"," + ok + ",\"objectName\":\"o\",\"details\":8,\"param\":7}");
  // Answering looks at the request and leaves it as it arrived.
  EXPECT_EQ(request.encode(), kRequest);
}

TEST(RSPMessage, WithoutRequestCommandTakesTheIdentifierAsFarAsItIsKnown) {
  const PellInternalMessage request = received(kRequest);
  EXPECT_EQ(RSPMessage::withoutRequestCommand(request, nullptr).encode(),
            kAddress + "{\"id\":\"\",\"statusCode\":200,\"statusMsg\":\"OK\"}");
  EXPECT_EQ(request.getUniqueId(), "5@9");
  EXPECT_EQ(RSPMessage::withoutRequestCommand(request, json("true")).encode(),
            kAddress + "{\"id\":\"5@9\",\"statusCode\":200,\"statusMsg\":\"OK\",\"param\":true}");
}

TEST(RSPMessage, SummaryReadsAResponseBack) {
  const ResponseSummary summary = readResponseSummary(RSPMessage(received(kRequest), 494));
  EXPECT_EQ(summary.id, "5@9");
  EXPECT_EQ(summary.requestCommand, "GET");
  EXPECT_EQ(summary.statusCode, 494);
  EXPECT_EQ(summary.statusMsg, "No Resource");
}

TEST(RSPMessage, SummaryNamesTheFirstFieldThatIsMissingOrIllTyped) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "no data object"},
      {"{", "no data object"},
      {"null", "no data object"},
      {"{}", "id not found"},
      {"[1]", "id not found"},
      {"{\"id\":5}", "id is not string type"},
      {"{\"id\":\"1\"}", "requestCommand not found"},
      {"{\"id\":\"1\",\"requestCommand\":null}", "requestCommand is not string type"},
      {"{\"id\":\"1\",\"requestCommand\":\"GET\"}", "statusCode not found"},
      {"{\"id\":\"1\",\"requestCommand\":\"GET\",\"statusCode\":\"200\"}", "statusMsg not found"},
      {"{\"id\":\"1\",\"requestCommand\":\"GET\",\"statusCode\":1,\"statusMsg\":[]}",
       "statusMsg is not string type"}};
  for (const auto& [body, expected] : cases) {
    try {
      readResponseSummary(received("[\"RSP\",\"a\",1,2]\n" + std::string(body)));
      ADD_FAILURE() << body;
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), expected) << body;
    }
  }
}

}  // namespace
}  // namespace valtor
