#include <regex>

#include "tools/ChildProcess.h"
#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

// A started valtor-node.
class NodeProcess : public ChildProcess {
 public:
  explicit NodeProcess(const std::string& options)
      : ChildProcess("exec " VALTOR_NODE_EXECUTABLE " --port 0 " + options + " >out 2>err") {
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
  EXPECT_TRUE(eventually([&] { return process.err().find("Bad Header") != std::string::npos; }));
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

// The example without its waits.
TEST(NodeExecutableTest, TheExampleRouterFailsInEveryWayAndComesBack) {
  const TemporaryFolder folder;
  const std::string quick =
      std::regex_replace(fileContent(VALTOR_NODE_EXAMPLES "/failing-router.json"),
                         std::regex("\"delay\": [0-9]+"), "\"delay\": 0.01");
  NodeProcess process("--scenario " + folder.write("quick.json", quick));
  const auto peer = process.join("north", {});
  EXPECT_EQ(peer->readFrame(), "[\"get\", \"db\", 100, 0, 0]");
  EXPECT_TRUE(process.prints("STEP 2 listen (nobody gets in)"));
  EXPECT_TRUE(peer->waitForHangUp());
  EXPECT_TRUE(process.prints("STEP 4 listen (open again)"));
  EXPECT_TRUE(process.prints("LISTEN 127.0.0.1:"));  // only one that had stopped says so
  EXPECT_TRUE(process.prints("STEP 6 resumeWriting"));
  EXPECT_NE(connectTo(process.port), nullptr);
}

TEST(NodeExecutableTest, ListensLateWhenAScenarioSaysSoAndLogsNothingBesideItsTrace) {
  const TemporaryFolder folder;
  NodeProcess process("--scenario " + folder.write("late.json", R"([{"at": 0, "listen": false},
                                              {"at": 0.01, "listen": true}])"));
  EXPECT_LT(process.out().find("STEP 2 listen"), process.out().find("LISTEN "));
  process.say("role standby\nquit\n");
  EXPECT_EQ(process.wait(), 0);
  EXPECT_EQ(process.err(), "");
}

TEST(NodeExecutableTest, EndsWithTheReaderOfItsOutputAndNamesTheFileAtFault) {
  const std::string node = "node='" VALTOR_NODE_EXECUTABLE " --port 0'; exec 2>err; ";
  for (const auto& [script, complaint] :
       {std::pair("set -o pipefail; timeout 60 $node | head -1",
                  "nobody reads standard output any more"),
        std::pair("printf '{}\\n}' >bad.json; exec $node -a bad.json",
                  "bad.json: no JSON from line 2 on")}) {
    ChildProcess shell(node + script);
    EXPECT_EQ(shell.wait(), 1) << script;
    EXPECT_EQ(shell.err(), "valtor-node: " + std::string(complaint) + "\n");
  }
  EXPECT_GT(ChildProcess(node + "exec $node --role ''").wait(), 1);
}

}  // namespace
}  // namespace valtor::test
