#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "bus/RequestMessages.h"
#include "router/RouteOperation.h"

namespace valtor {
namespace {

JSONPtr json(const char* text) { return JSONPtr(cJSON_Parse(text)); }

// The message as text, with its identifier as X.
std::string text(const PellInternalMessage& message) {
  std::string encoded = message.encode();
  const std::string quoted = "\"" + message.knownUniqueId() + "\"";
  const std::size_t at = encoded.find(quoted);
  return at == std::string::npos ? "no identifier in " + encoded
                                 : encoded.replace(at, quoted.size(), "X");
}

TEST(RequestMessages, EveryConstructorBuildsTheseBytes) {
  const std::string get = "[\"GET\", \"p\", 0, 0, 0]\n{\"id\":X";
  EXPECT_EQ(text(GETMessage("p", json("[1]"))), get + ",\"param\":[1]}");
  EXPECT_EQ(text(GETMessage("p", {"a", "b"})), get + ",\"param\":{\"objectName\":[\"a\",\"b\"]}}");
  EXPECT_EQ(text(GETMessage("p", {}, json("{\"x\":1}"), 1)),
            get + ",\"paramDescriptor\":{\"objectName\":[],\"arguments\":{\"x\":1}}}");
  EXPECT_EQ(text(GETMessage("p", {"a"}, nullptr, 2)), get + ",\"param\":{\"objectName\":[\"a\"]}}");

  const std::string set = "[\"SET\", \"p\", 0, 0, 0]\n{\"id\":X";
  EXPECT_EQ(text(SETMessage("p", json("5"))), set + ",\"param\":5}");
  EXPECT_EQ(text(SETMessage("p", json("5"), 1, 1)), set + ",\"seq\":[1,1],\"param\":5}");
  EXPECT_EQ(text(SETMessage("p", json("5"), 0, 3)), set + ",\"param\":5}");
  EXPECT_EQ(text(SETMessage("p", json("5"), 2, 0)), set + ",\"param\":5}");
  EXPECT_EQ(text(SETMessage("p", nullptr)), set + "}");

  const std::string notification = "[\"NOT\", \"p\", 0, 0, 0]\n{\"id\":X";
  EXPECT_EQ(text(NOTMessage("p", "k", json("{}"))), notification + ",\"k\":{}}");
  EXPECT_EQ(text(NOTMessage("p", "k", json("{}"), NOTMessage::Form::Wrapped)),
            notification + ",\"param\":{\"k\":{}}}");

  EXPECT_EQ(text(CMDMessage(json("[7]"), "take")),
            "[\"CMD\", \"route\", 0, 0, 0]\n{\"id\":X,\"take\":[7]}");
  EXPECT_EQ(text(CMDMessage("p")), "[\"CMDNOT\", \"p\", 0, 0, 0]\n{\"id\":X}");
  EXPECT_EQ(text(CMDMessage(MessageKind::CMDRSP, "p")), "[\"CMDRSP\", \"p\", 0, 0, 0]\n{\"id\":X}");
  EXPECT_EQ(text(CMDMessage(MessageKind::NAK, "p", 12, "i")),
            "[\"NAK\", \"p\", 0, 12, 0]\n{\"id\":X}");
}

TEST(RequestMessages, RouteCommandsCarryTheOperationsAndTheUser) {
  RouteOperation first;
  first.userID = 4;
  first.hasDestRange = true;
  first.destRangeLast = 4095;
  RouteOperation second;
  second.destination = {9};
  const std::string start = "[\"CMD\", \"route\", 0, 0, 0]\n{\"id\":X,\"stat\":[";
  const std::string one = printJSON(first.toJSON().get(), false);
  const std::string two = printJSON(second.toJSON().get(), false);
  EXPECT_NE(one, two);
  EXPECT_EQ(text(CMDMessage(first, "stat")), start + one + "],\"userID\":4}");
  EXPECT_EQ(text(CMDMessage(std::vector<RouteOperation>{first, second}, "stat", 77)),
            start + one + "," + two + "],\"userID\":77}");
  EXPECT_EQ(text(CMDMessage(std::vector<RouteOperation>{}, "stat", 0)), start + "],\"userID\":0}");
}

}  // namespace
}  // namespace valtor
