#include <memory>
#include <string>
#include <vector>

#include "message-node/NodeCommands.h"
#include "message-node/NodeTrace.h"
#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

TEST(NodeTraceTest, AMessageIsOneLineThatGrepCanRead) {
  PassedMessage message;
  message.payload = std::make_shared<const std::string>("[header]\n{\"a\":\n\t\"b\"}");
  message.kind = MessageKind::CMD;
  message.path = "route";
  message.source = 490;
  message.from = "the panel";
  EXPECT_EQ(traceText(message, 100),
            "MSG kind=CMD path=\"route\" src=490 dst=0 from=the_panel to=- bytes=20 "
            "body={\"a\":  \"b\"}");
  message.to = {"alpha", "b,c\n"};
  EXPECT_EQ(traceText(message, 4),
            "MSG kind=CMD path=\"route\" src=490 dst=0 from=the_panel to=alpha,b_c_ bytes=20 "
            "body={\"a\"...");
}

class CommandTest : public NodeFixture {
 protected:
  std::string reply(const std::string& line) { return executeCommand(**node, line).reply; }
};

TEST_F(CommandTest, SendPassesOnTheRestOfTheLine) {
  startNode();
  join({"router", 100, {"route", ""}, false});
  EXPECT_EQ(reply("send 490 CMD route 0   {\"id\": \"a  b\"} "), "");
  EXPECT_EQ(reply("send 490 NOT \"\" 100 {}"), "");
  EXPECT_EQ(received("router"),
            (std::vector<std::string>{"[\"CMD\", \"route\", 490, 0, 0]\n{\"id\": \"a  b\"} ",
                                      "[\"NOT\", \"\", 490, 100, 0]\n{}"}));
}

TEST_F(CommandTest, WhatIsWrongIsSaid) {
  startNode();
  for (const char* line :
       {"send", "send x CMD route 0 {}", "send 1 CMD route 0x {}", "send 1 cmd route 0 {}",
        "send 99999999999 CMD route 0 {}", "role", "drop  ", "nonsense"}) {
    EXPECT_EQ(reply(line).rfind("ERROR ", 0), 0U) << line;
    EXPECT_FALSE(executeCommand(**node, line).quit) << line;
  }
  EXPECT_EQ(reply("  "), "");
  EXPECT_NE(reply("help").find("drop NAME"), std::string::npos);
}

TEST_F(CommandTest, RoleListDropAndQuitDoWhatTheySay) {
  startNode();
  NodeClient& client = join({"router", 100, {"route"}, true});
  EXPECT_EQ(reply("role standby"), "");
  const std::string list = reply("list");
  EXPECT_EQ(list.rfind("LIST 1 connections, role standby\n  #1 name=router id=100 address=127.", 0),
            0U)
      << list;
  EXPECT_NE(list.find(" unsent=0 received=3 subscriptions=fence,route+\n"), std::string::npos)
      << list;
  EXPECT_EQ(reply("drop router"), "DROP 1 connections\n");
  EXPECT_EQ(client.waitForEnd(), NodeClient::End::Closed);
  EXPECT_TRUE(executeCommand(**node, "quit").quit);
}

}  // namespace
}  // namespace valtor::test
