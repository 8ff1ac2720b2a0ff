#include "bus/BusSupport.h"
#include "bus/message/RSPMessage.h"
#include "bus/message/RequestMessages.h"
#include "router/RouteOperation.h"
#include "support/Vocabulary.h"

namespace valtor {
namespace {

const std::string kRequest = "[\"GET\", \"device\", 490, 101, 0]\n{ \"id\":\"5@9\" }";

JSONPtr json(const char* text) { return JSONPtr(cJSON_Parse(text)); }

// The message as text, with its identifier as X.
std::string text(const PellInternalMessage& message) {
  const std::string quoted = "\"" + message.knownUniqueId() + "\"";
  std::string encoded = message.encode();
  return encoded.replace(encoded.find(quoted), quoted.size(), "X");
}

TEST(MessageBytes, Requests) {
  const std::string get = "[\"GET\", \"p\", 0, 0, 0]\n{\"id\":X";
  EXPECT_EQ(text(GETMessage("p", json("[1]"))), get + ",\"param\":[1]}");
  EXPECT_EQ(text(GETMessage("p", {"a", "b"})), get + ",\"param\":{\"objectName\":[\"a\",\"b\"]}}");
  EXPECT_EQ(text(GETMessage("p", {}, json("{\"x\":1}"), 1)),
            get + ",\"paramDescriptor\":{\"objectName\":[],\"arguments\":{\"x\":1}}}");
  const std::string set = "[\"SET\", \"p\", 0, 0, 0]\n{\"id\":X";
  EXPECT_EQ(text(SETMessage("p", json("5"), 1, 1)), set + ",\"seq\":[1,1],\"param\":5}");
  EXPECT_EQ(text(SETMessage("p", json("5"), 0, 3)), set + ",\"param\":5}");
  EXPECT_EQ(text(PellInternalMessage(MessageKind::SET, "p", json("{\"a\":[1]}"))),
            "[\"SET\", \"p\", 0, 0, 0]\n{\"a\":[1],\"id\":X}");
  const std::string notification = "[\"NOT\", \"p\", 0, 0, 0]\n{\"id\":X";
  EXPECT_EQ(text(NOTMessage("p", "k", json("{}"))), notification + ",\"k\":{}}");
  EXPECT_EQ(text(NOTMessage("p", "k", json("{}"), NOTMessage::Form::Wrapped)),
            notification + ",\"param\":{\"k\":{}}}");
}

TEST(MessageBytes, Commands) {
  const std::string route = "[\"CMD\", \"route\", 0, 0, 0]\n{\"id\":X";
  EXPECT_EQ(text(CMDMessage(json("[7]"), "take")), route + ",\"take\":[7]}");
  EXPECT_EQ(text(CMDMessage("p")), "[\"CMDNOT\", \"p\", 0, 0, 0]\n{\"id\":X}");
  EXPECT_EQ(text(CMDMessage(MessageKind::NAK, "p", 2, "i")),
            "[\"NAK\", \"p\", 0, 2, 0]\n{\"id\":X}");
  RouteOperation operation;
  operation.userID = 4;
  const std::string one = printJSON(operation.toJSON().get(), false);
  EXPECT_EQ(text(CMDMessage(operation, "stat")), route + ",\"stat\":[" + one + "],\"userID\":4}");
  EXPECT_EQ(text(CMDMessage(std::vector<RouteOperation>{operation, operation}, "stat", 77)),
            route + ",\"stat\":[" + one + "," + one + "],\"userID\":77}");
}

TEST(MessageBytes, Responses) {
  const PellInternalMessage request = test::received(kRequest);
  const std::string address = "[\"RSP\", \"device\", 0, 490, 0]\n";
  const std::string ok = "\"statusCode\":200,\"statusMsg\":\"OK\"";
  // As long as nobody has looked for it, the identifier is unknown.
  EXPECT_EQ(RSPMessage::withoutRequestCommand(request, nullptr).encode(),
            address + "{\"id\":\"\"," + ok + "}");
  const std::string get = address + "{\"id\":\"5@9\",\"requestCommand\":\"GET\",";
  EXPECT_EQ(RSPMessage(request, 404).encode(),
            get + "\"statusCode\":404,\"statusMsg\":\"Not Found\"}");
  EXPECT_EQ(RSPMessage(request, "cp1", 200, json("[1]")).encode(),
            get + ok + ",\"objectName\":\"cp1\",\"details\":[1]}");
  EXPECT_EQ(RSPMessage(request, "b", json("[]"), RSPMessage::ValueKey::ParamDescriptor).encode(),
            get + ok + ",\"objectBase\":\"b\",\"paramDescriptor\":[]}");
  const RSPMessage::Request asked{"device", 490, "5@9", MessageKind::GET};
  EXPECT_EQ(RSPMessage(asked, "o", 200, json("7"), json("8")).encode(),
            get + ok + ",\"objectName\":\"o\",\"details\":8,\"param\":7}");
  EXPECT_EQ(request.encode(), kRequest);  // answering leaves it as it arrived
}

}  // namespace
}  // namespace valtor
