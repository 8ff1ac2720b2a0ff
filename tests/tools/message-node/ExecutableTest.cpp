#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

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

  // The exit status.
  int quit() {
    say("quit");
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

}  // namespace
}  // namespace valtor::test
