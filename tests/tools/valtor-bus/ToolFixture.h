#pragma once

#include <atomic>
#include <map>

#include "message-node/RunningNode.h"
#include "support/Vocabulary.h"
#include "tools/ChildProcess.h"

namespace valtor::test {

using Texts = std::vector<std::string>;

// The real executable against a node whose other participants are played by the test, but for a
// daemon that says, while it is ready, that it is. Tools that run at the same time are told apart
// by the names with which they log in.
class ToolFixture : public ::testing::Test {
 protected:
  // The script has the tool's command line as "$@".
  std::unique_ptr<ChildProcess> start(Texts arguments, const std::string& input = "",
                                      const std::string& script = "exec \"$@\"") {
    arguments.insert(arguments.begin(),
                     {VALTOR_BUS_EXECUTABLE, "--port", std::to_string(node.port())});
    auto tool = std::make_unique<ChildProcess>("exec >out 2>err; " + script, arguments);
    tool->say(input);
    tool->endInput();
    return tool;
  }

  // Waits until commands that stay have subscribed so often.
  void waitForSubscriptions(std::size_t count) {
    ASSERT_TRUE(eventually([&] { return node.countEvents("SUBSCRIBE") >= count; }));
  }

  // The next message that a tool sent on the path.
  PassedMessage nextSent(const std::string& path, const std::string& tool = "valtor-bus") {
    std::size_t& at = looked[tool];
    PassedMessage found;
    EXPECT_TRUE(eventually([&] {
      for (const auto all = node.passed(); at < all.size() && found.path != path;) {
        found = all[at++];
        found.path = found.from == tool ? found.path : "";
      }
      return found.path == path;
    }));
    return found;
  }

  static std::string identifier(const PassedMessage& message) {
    return std::string(message.body().substr(0, message.body().find(',')));
  }
  // The kind of a message, and its body behind its identifier.
  static std::string content(const PassedMessage& message) {
    return kindName(message.kind) +
           std::string(" ").append(message.body().substr(identifier(message).size() + 1));
  }

  // Answers the next message on the path with each text behind its identifier, from connection 101
  // on, after an answer to something else; all at once, so that none is late. The message.
  PassedMessage answerNext(const std::string& path, const Texts& texts,
                           const std::string& tool = "valtor-bus") {
    PassedMessage message = nextSent(path, tool);
    int source = 100;
    std::string frames;
    const auto add = [&](const std::string& body) {
      const std::string payload = "[\"RSP\",\"" + path + "\"," + std::to_string(source++) + "," +
                                  std::to_string(message.source) + ",0]\n" + body + "}";
      frames += std::to_string(payload.size()) + ":" + payload + ";";
    };
    add(R"({"id":"other","statusCode":500,"param":{"a":"stray"})");
    for (const std::string& text : texts) {
      add(identifier(message) + "," + text);
    }
    node->writeRaw(tool, frames);
    return message;
  }

  // Whether the message asks the daemon whether it is ready.
  static bool isReadinessQuestion(const PassedMessage& message) {
    return message.kind == MessageKind::GET && message.path == "system" &&
           message.body().find("moduleReady") != std::string::npos;
  }

  std::atomic<bool> ready{true};
  RunningNode node{withDaemon()};
  std::map<std::string, std::size_t> looked;

 private:
  MessageNode::Options withDaemon() {
    MessageNode::Options options;
    options.onMessage = [this](const PassedMessage& message) {
      if (ready && isReadinessQuestion(message) && message.destination == 101) {
        node->inject(101, "RSP", "system", message.source, identifier(message) + "}");
      }
    };
    return options;
  }
};

}  // namespace valtor::test
