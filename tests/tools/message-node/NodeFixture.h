#pragma once

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "message-node/RunningNode.h"
#include "support/Eventually.h"
#include "tools/NodeClient.h"

namespace valtor::test {

// A node with participants. Every participant listens to "fence" besides its own paths, so that
// what it received up to now ends at a message that the test sends there.
class NodeFixture : public ::testing::Test {
 protected:
  struct Participant {
    std::string name;
    int connID;
    std::vector<std::string> paths;
    bool receiveAll;
  };

  void startNode(MessageNode::Options options = {}) {
    node = std::make_unique<RunningNode>(std::move(options));
  }

  NodeClient& join(const Participant& participant) {
    const auto [entry, isNew] =
        clients.emplace(participant.name, std::make_unique<NodeClient>(node->port()));
    NodeClient& client = *entry->second;
    EXPECT_TRUE(isNew && client.isOpen());
    EXPECT_TRUE(client.login(participant.name, participant.connID));
    EXPECT_TRUE(client.subscribe({"fence"}));
    EXPECT_TRUE(client.subscribe(participant.paths, participant.receiveAll));
    const std::size_t expected = participant.paths.size() + 1;
    EXPECT_TRUE(eventually([&] { return subscriptionsOf(participant.name) == expected; }));
    return client;
  }

  std::size_t subscriptionsOf(const std::string& name) {
    for (const NodeParticipant& one : (*node)->participants()) {
      if (one.name == name) {
        return one.subscriptions.size();
      }
    }
    return 0;
  }

  // Sends the payload and waits until the node has passed it on or taken it.
  void sendAndWait(const std::string& from, const std::string& payload) {
    const auto isIt = [&](const PassedMessage& message) { return *message.payload == payload; };
    const std::size_t before = node->countPassed(isIt);
    ASSERT_TRUE(clients.at(from)->send(payload));
    ASSERT_TRUE(eventually([&] { return node->countPassed(isIt) > before; }));
  }

  // What the participant has been sent up to now.
  std::vector<std::string> received(const std::string& name) {
    const std::string anyFence = "[\"NOT\", \"fence\", 9, 0, 0]\n";
    const std::string fence = anyFence + std::to_string(++fences);
    EXPECT_TRUE((*node)->injectPayload(fence));
    std::vector<std::string> payloads;
    while (true) {
      const auto payload = clients.at(name)->receive();
      if (!payload) {
        ADD_FAILURE() << name << " was cut off";
        return payloads;
      }
      if (*payload == fence) {
        return payloads;
      }
      if (payload->rfind(anyFence, 0) != 0) {  // those of other participants come here too
        payloads.push_back(*payload);
      }
    }
  }

  std::unique_ptr<RunningNode> node;
  std::map<std::string, std::unique_ptr<NodeClient>> clients;
  int fences = 0;
};

}  // namespace valtor::test
