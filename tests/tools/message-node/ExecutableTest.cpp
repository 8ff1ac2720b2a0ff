#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "app/util/UniqueDescriptor.h"
#include "message-node/RunningNode.h"
#include "support/TemporaryFolder.h"
#include "tools/NodeClient.h"

namespace valtor::test {
namespace {

// A started valtor-node with pipes to its standard streams; output and errors come mixed.
class NodeProcess {
 public:
  explicit NodeProcess(std::vector<std::string> arguments) {
    int input[2];
    int output[2];
    if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
      return;
    }
    input_.reset(input[1]);
    output_.reset(output[0]);
    const UniqueDescriptor childInput(input[0]);
    const UniqueDescriptor childOutput(output[1]);
    arguments.insert(arguments.begin(), VALTOR_NODE_EXECUTABLE);
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
      argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childInput.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOutput.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, childOutput.get(), STDERR_FILENO);
    if (posix_spawn(&process_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
      process_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
  }

  ~NodeProcess() {
    if (process_ > 0) {
      kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
    }
  }
  NodeProcess(const NodeProcess&) = delete;
  NodeProcess& operator=(const NodeProcess&) = delete;

  void say(const std::string& line) {
    const std::string text = line + "\n";
    EXPECT_EQ(write(input_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  // Output up to and including the first line that holds the text; "" when it never comes.
  std::string lineWith(const std::string& part) {
    std::string line;
    char byte = 0;
    while (read(output_.get(), &byte, 1) == 1) {
      line += byte;
      if (byte == '\n') {
        if (line.find(part) != std::string::npos) {
          return line;
        }
        line.clear();
      }
    }
    return "";
  }

  // Waits for the end; the exit status, or -1 when a signal ended it.
  int exitStatus() {
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  UniqueDescriptor input_;
  UniqueDescriptor output_;
  pid_t process_ = -1;
};

uint16_t portIn(const std::string& listenLine) {
  const std::string before = "LISTEN 127.0.0.1:";
  const std::size_t at = listenLine.find(before);
  return at == std::string::npos
             ? uint16_t{0}
             : static_cast<uint16_t>(std::stoul(listenLine.substr(at + before.size())));
}

TEST(NodeExecutableTest, ServesTracesTakesCommandsAndQuits) {
  const TemporaryFolder folder;
  const std::string answers =
      folder.write("answers.json", "{\"db\": {\"logicalDests\":\n [1, 2]}}\n");
  NodeProcess process({"--port", "0", "--answers", answers, "--role", "standby"});
  const uint16_t port = portIn(process.lineWith("LISTEN"));
  ASSERT_NE(port, 0);
  NodeClient client(port);
  ASSERT_TRUE(client.login("daemon", 101));
  EXPECT_NE(process.lineWith("LOGIN #1 name=daemon id=101"), "");
  ASSERT_TRUE(client.send(
      "[\"GET\", \"db\", 101, 0, 0]\n{\"id\":\"1\",\"objectName\":[\"logicalDests\"]}"));
  EXPECT_NE(process.lineWith("MSG kind=RSP path=\"db\" src=100 dst=101 from=node to=daemon"), "");
  EXPECT_TRUE(client.receive().value_or("").find("{\"logicalDests\":[1,2]}") != std::string::npos);
  process.say("role active");
  EXPECT_NE(process.lineWith("ROLE active"), "");
  ASSERT_TRUE(client.write("3:[];;"));
  EXPECT_NE(process.lineWith("Bad Header"), "");
  process.say("quit");
  EXPECT_EQ(process.exitStatus(), 0);
}

TEST(NodeExecutableTest, APortInUseAndBrokenAnswersEndItWithAReason) {
  const RunningNode taken;
  NodeProcess second({"--port", std::to_string(taken.port())});
  EXPECT_NE(second.lineWith("cannot listen on 127.0.0.1:" + std::to_string(taken.port()) +
                            ": Address already in use"),
            "");
  EXPECT_EQ(second.exitStatus(), 1);
  const TemporaryFolder folder;
  NodeProcess broken({"--port", "0", "--answers", folder.write("answers.json", "nonsense")});
  EXPECT_NE(broken.lineWith("valtor-node: the answers are not a JSON object"), "");
  EXPECT_EQ(broken.exitStatus(), 1);
}

TEST(NodeExecutableTest, HelpShowsCommandsAndExamples) {
  NodeProcess process({"--help"});
  EXPECT_NE(process.lineWith("send SRC KIND PATH DEST BODY"), "");
  EXPECT_NE(process.lineWith("valtor-node --listen 127.0.0.2"), "");
  EXPECT_EQ(process.exitStatus(), 0);
}

}  // namespace
}  // namespace valtor::test
