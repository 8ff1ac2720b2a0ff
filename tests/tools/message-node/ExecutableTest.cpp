#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "message-node/Scenario.h"
#include "support/TemporaryFolder.h"
#include "tools/message-node/NodeFixture.h"

namespace valtor::test {
namespace {

// A started valtor-node, with a FIFO as standard input; output and errors come mixed.
class NodeProcess {
 public:
  explicit NodeProcess(const std::string& arguments) {
    const std::string input = folder_.at("input");
    EXPECT_EQ(mkfifo(input.c_str(), 0600), 0);
    input_.reset(open(input.c_str(), O_RDWR | O_CLOEXEC));
    const std::string command = VALTOR_NODE_EXECUTABLE " " + arguments + " 2>&1 <" + input;
    output_ = popen(command.c_str(), "re");
  }

  ~NodeProcess() {
    if (output_ != nullptr) {
      quit();
    }
  }

  void say(const std::string& line) {
    EXPECT_GT(write(input_.get(), (line + "\n").data(), line.size() + 1), 0);
  }

  // Output up to and including the first line that holds the text; "" when it never comes.
  std::string lineWith(const std::string& part) {
    char line[4096];
    while (std::fgets(line, sizeof line, output_) != nullptr) {
      if (std::string(line).find(part) != std::string::npos) {
        return line;
      }
    }
    return "";
  }

  // A participant, logged in; its node has to print "LISTEN" next.
  std::unique_ptr<ScriptedPeer> join(const std::string& name, const Payloads& paths) {
    const std::string listening = lineWith("LISTEN 127.0.0.1:");
    port = static_cast<uint16_t>(std::stoul(listening.substr(listening.rfind(':') + 1)));
    auto peer = connectTo(port);
    peer->sendPayload(loginPayload(name, 101, paths));
    return peer;
  }

  uint16_t port = 0;

  // The exit status.
  int quit() {
    say("quit");
    while (!lineWith("\n").empty()) {
    }
    return WEXITSTATUS(pclose(std::exchange(output_, nullptr)));
  }

 private:
  const TemporaryFolder folder_;
  UniqueDescriptor input_;
  FILE* output_ = nullptr;
};

TEST(NodeExecutableTest, ServesTracesTakesCommandsAndQuits) {
  const TemporaryFolder folder;
  const std::string answers = folder.write("answers.json", "{\"db\": {\"dests\":\n [1, 2]}}\n");
  NodeProcess process("--port 0 --role standby --answers " + answers);
  const std::string listening = process.lineWith("LISTEN 127.0.0.1:");
  EXPECT_NE(listening.find(" role=standby\n"), std::string::npos) << listening;
  const std::string port = listening.substr(listening.rfind(':') + 1);
  const auto client = connectTo(static_cast<uint16_t>(std::stoul(port)));
  client->sendPayload(loginPayload("daemon", 101, {"route"}, true));
  EXPECT_NE(process.lineWith("LOGIN #1 name=daemon id=101"), "");
  client->sendPayload("[\"GET\", \"db\", 101, 0, 0]\n{\"id\":\"1\",\"objectName\":[\"dests\"]}");
  EXPECT_NE(process.lineWith("MSG kind=RSP path=\"db\" src=100 dst=101 from=node to=daemon"), "");
  EXPECT_NE(client->readFrame().find("{\"dests\":[1,2]}"), std::string::npos);
  client->send("3:[];;");
  EXPECT_NE(process.lineWith("Bad Header"), "");
  process.say("role active");
  EXPECT_NE(process.lineWith("ROLE active"), "");
  process.say("send 490 CMD route 0   {\"id\": \"a  b\"}");
  EXPECT_EQ(client->readFrame(), "[\"CMD\", \"route\", 490, 0, 0]\n{\"id\": \"a  b\"}");
  process.say("send 1 cmd route 0 {}");
  EXPECT_NE(process.lineWith("ERROR send: no such kind"), "");
  process.say("list");
  EXPECT_NE(process.lineWith("  #1 name=daemon id=101 address=127.0.0.1:"), "");
  process.say("drop daemon");
  EXPECT_TRUE(client->waitForHangUp());
  EXPECT_EQ(process.quit(), 0);
}

TEST(ScenarioTest, TheExampleControllerSendsForAPanelAndChangesItsRole) {
  NodeProcess process("--port 0 --no-trace --scenario " VALTOR_NODE_EXAMPLES "/controller.json");
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

TEST(ScenarioTest, TheExampleRouterTakesARouteAndAnnouncesEachTake) {
  NodeProcess process("--port 0 --scenario " VALTOR_NODE_EXAMPLES "/router.json");
  const auto peer = process.join("north", {"route"});
  const auto ask = [&](const std::string& member) {
    peer->sendPayload("[\"CMD\", \"route\", 101, 0, 0]\n{\"id\":\"1\",\"" + member + "\":[{}]}");
    return peer->readFrame();
  };
  EXPECT_NE(ask("stat").find("[4,[1]]"), std::string::npos);
  for (int i = 0; i < 2; ++i) {
    EXPECT_NE(ask("take").find("\"statusCode\":200"), std::string::npos);
    EXPECT_EQ(peer->readFrame().rfind("[\"NOT\", \"route\", 100, 0, 0]\n{\"id\":\"1@router\"", 0),
              0U);
  }
  EXPECT_NE(ask("stat").find("[4,[12]]"), std::string::npos);
}

TEST(ScenarioTest, TheExampleRouterFailsInEveryWayAndComesBack) {
  NodeProcess process("--port 0 --scenario " VALTOR_NODE_EXAMPLES "/failing-router.json");
  const auto peer = process.join("north", {});
  EXPECT_EQ(peer->readFrame(), "[\"get\", \"db\", 100, 0, 0]");
  EXPECT_NE(process.lineWith("STEP 2 listen (nobody gets in)"), "");
  EXPECT_TRUE(peer->waitForHangUp());
  EXPECT_NE(process.lineWith("STEP 4 listen (open again)"), "");
  EXPECT_NE(process.lineWith("LISTEN 127.0.0.1:"), "");  // only one that had stopped says so
  EXPECT_NE(connectTo(process.port), nullptr);
}

TEST(ScenarioTest, ABadStepIsNamedWithItsFault) {
  const std::pair<const char*, const char*> cases[] = {
      {"[\n{\"at\": 1,\n", "no JSON from line 3 on"},
      {"{}", "not a list of steps"},
      {R"([{"at":1,"role":"active"},{"at":1}])", "step 2: no action"},
      {R"([{"at":1,"role":"a","close":"b"}])", "step 1: more than one action: role and close"},
      {R"([{"role":"active"}])", "step 1: needs either \"at\" or \"after\""},
      {R"([{"at":-1,"role":"active"}])",
       "step 1: \"at\" is not a number of seconds from 0 to 1000000"},
      {R"([{"at":1,"role":"active","repeat":2}])", "step 1: \"repeat\" needs \"every\""},
      {R"([{"at":1,"rolle":"active"}])", "step 1: unknown member \"rolle\""},
      {R"([{"at":1,"send":{"from":1,"kind":"get","path":""}}])",
       "step 1: \"get\" is no kind of message"},
      {R"([{"at":1,"send":{"from":1,"kind":"GET"}}])", "step 1: \"send\" has no \"path\""},
      {R"([{"at":1,"raw":{"to":"*","hex":"0g"}}])",
       "step 1: \"hex\" is not pairs of hexadecimal digits"},
  };
  for (const auto& [text, fault] : cases) {
    std::string said;
    try {
      const Scenario scenario{std::string(text)};
    } catch (const std::runtime_error& error) {
      said = error.what();
    }
    EXPECT_EQ(said, fault) << text;
  }
}

}  // namespace
}  // namespace valtor::test
