#include "message-node/Scenario.h"
#include "tools/ChildProcess.h"
#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

// A started valtor-node; output and errors come mixed.
class NodeProcess : public ChildProcess {
 public:
  explicit NodeProcess(const std::string& options)
      : ChildProcess("exec " VALTOR_NODE_EXECUTABLE " --port 0 " + options + " >out 2>&1") {
    EXPECT_TRUE(prints("LISTEN 127.0.0.1:"));
    port = static_cast<uint16_t>(std::stoul(out().substr(read_)));
  }

  // Waits for the text, behind what was waited for before.
  bool prints(const std::string& text) {
    return eventually([&] {
      const std::size_t found = out().find(text, read_);
      read_ = found != std::string::npos ? found + text.size() : read_;
      return found != std::string::npos;
    });
  }
  // A participant, logged in.
  std::unique_ptr<ScriptedPeer> join(const std::string& name, const Payloads& paths) const {
    auto peer = connectTo(port);
    peer->sendPayload(loginPayload(name, 101, paths));
    return peer;
  }

  uint16_t port = 0;

 private:
  std::size_t read_ = 0;
};

TEST(NodeExecutableTest, ServesTracesTakesCommandsAndQuits) {
  const TemporaryFolder folder;
  const std::string answers = folder.write("answers.json", "{\"db\": {\"dests\":\n [1, 2]}}\n");
  NodeProcess process("--role standby --answers " + answers);
  const auto client = process.join("daemon", {"route"});
  EXPECT_TRUE(process.prints(" role=standby\n"));
  EXPECT_TRUE(process.prints("LOGIN #1 name=daemon id=101"));
  client->sendPayload("[\"GET\", \"db\", 101, 0, 0]\n{\"id\":\"1\",\"objectName\":[\"dests\"]}");
  EXPECT_TRUE(process.prints("MSG kind=RSP path=\"db\" src=100 dst=101 from=node to=daemon"));
  EXPECT_NE(client->readFrame().find("{\"dests\":[1,2]}"), std::string::npos);
  client->send("3:[];;");
  EXPECT_TRUE(process.prints("Bad Header"));
  process.say("role active\n");
  EXPECT_TRUE(process.prints("ROLE active"));
  process.say("send 490 CMD route 0   {\"id\": \"a  b\"}\n");
  EXPECT_EQ(client->readFrame(), "[\"CMD\", \"route\", 490, 0, 0]\n{\"id\": \"a  b\"}");
  process.say("send 1 cmd route 0 {}\n");
  EXPECT_TRUE(process.prints("ERROR send: no such kind"));
  process.say("list\n");
  EXPECT_TRUE(process.prints("  #1 name=daemon id=101 address=127.0.0.1:"));
  process.say("drop daemon\n");
  EXPECT_TRUE(client->waitForHangUp());
  process.say("quit\n");
  EXPECT_EQ(process.wait(), 0);
}

TEST(ScenarioTest, TheExampleControllerSendsForAPanelAndChangesItsRole) {
  NodeProcess process("--no-trace --scenario " VALTOR_NODE_EXAMPLES "/controller.json");
  const auto daemon = process.join("valtorRemote", {"route", "system", "mv"});
  daemon->sendPayload("[\"CMD\", \"route\", 101, 0, 0]\n{\"id\":\"1\",\"stat\":[]}");
  EXPECT_NE(daemon->readFrame().find("\"stat\":[{\"level\":[0],"), std::string::npos);
  std::string received;
  while (received.find("\"active\"") == std::string::npos) {
    received += daemon->readFrame() + "\n";
  }
  const std::size_t standby = received.find("{\"mdxMasterState\":\"standby\"}");
  EXPECT_LT(standby, received.find("{\"mdxMasterState\":\"active\"}")) << received;
  EXPECT_NE(received.find("[\"CMD\", \"route\", 490, 0, 0]\n{\"id\":\"1@panel\",\"take\":[{"),
            std::string::npos)
      << received;
}

TEST(ScenarioTest, TheExampleRouterAnnouncesEachTake) {
  NodeProcess process("--scenario " VALTOR_NODE_EXAMPLES "/router.json");
  const auto peer = process.join("north", {"route"});
  for (int i = 0; i < 2; ++i) {
    peer->sendPayload(
        "[\"CMD\", \"route\", 101, 0, 0]\n"
        R"({"id":"1","take":[{}]})");
    EXPECT_NE(peer->readFrame().find("\"statusCode\":200"), std::string::npos);
    EXPECT_NE(peer->readFrame().find("\"id\":\"1@router\""), std::string::npos);
  }
}

TEST(ScenarioTest, TheExampleRouterFailsInEveryWayAndComesBack) {
  NodeProcess process("--scenario " VALTOR_NODE_EXAMPLES "/failing-router.json");
  const auto peer = process.join("north", {});
  EXPECT_EQ(peer->readFrame(), "[\"get\", \"db\", 100, 0, 0]");
  EXPECT_TRUE(process.prints("STEP 2 listen (nobody gets in)"));
  EXPECT_TRUE(peer->waitForHangUp());
  EXPECT_TRUE(process.prints("STEP 4 listen (open again)"));
  EXPECT_TRUE(process.prints("LISTEN 127.0.0.1:"));  // only one that had stopped says so
  EXPECT_NE(connectTo(process.port), nullptr);
}

TEST(ScenarioTest, ABadStepIsNamedWithItsFault) {
  const std::pair<std::string, std::string> cases[] = {
      {"[\n{\"at\": 1,\n", "no JSON from line 3 on"},
      {"{}", "not a list of steps"},
      {R"([{"at":1,"role":"active"},{"at":1}])", "step 2: no action"},
      {R"([{"at":1,"role":"a","close":"b"}])", "step 1: more than one action: role and close"},
      {R"([{"role":"active"}])", R"(step 1: needs either "at" or "after")"},
      {R"([{"at":-1,"role":"a"}])", R"(step 1: "at" is not a number of seconds from 0 to 1000000)"},
      {R"([{"at":1,"role":"active","repeat":2}])", R"(step 1: "repeat" needs "every")"},
      {R"([{"at":1,"rolle":"active"}])", R"(step 1: unknown member "rolle")"},
      {R"([{"at":1,"send":{"from":1,"kind":"get"}}])", R"(step 1: "get" is no kind of message)"},
      {R"([{"at":1,"send":{"from":1,"kind":"GET"}}])", R"(step 1: "send" has no "path")"},
      {R"([{"at":1,"raw":{"to":"*","hex":"0g"}}])",
       R"(step 1: "hex" is not pairs of hexadecimal digits)"},
  };
  for (const auto& [text, fault] : cases) {
    try {
      const Scenario scenario(text);
      ADD_FAILURE() << text;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), fault) << text;
    }
  }
}

}  // namespace
}  // namespace valtor::test
