#pragma once

#include <arpa/inet.h>
#include <map>
#include <sys/socket.h>

#include "message-node/RunningNode.h"
#include "support/ScriptedNode.h"
#include "support/Vocabulary.h"

namespace valtor::test {

using Payloads = std::vector<std::string>;

// A connection to a port of 127.0.0.1, on a plain socket; null when nobody listens.
inline std::unique_ptr<ScriptedPeer> connectTo(uint16_t port) {
  UniqueDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto* general = reinterpret_cast<const sockaddr*>(&address);
  return connect(socket.get(), general, sizeof address) == 0
             ? std::make_unique<ScriptedPeer>(std::move(socket))
             : nullptr;
}

// What logs a participant in and subscribes it to the paths.
inline std::string loginPayload(const std::string& name, int connID, const Payloads& paths = {},
                                bool receiveAll = false) {
  std::string list;
  for (const std::string& path : paths) {
    list += (list.empty() ? "{\"path\":\"" : ",{\"path\":\"") + path +
            (receiveAll ? "\",\"receiveAll\":true}" : "\"}");
  }
  return "[\"SET\", \"system.connection\", " + std::to_string(connID) +
         ", 0, 0]\n{\"param\":{\"login\":{\"name\":\"" + name +
         "\",\"connID\":" + std::to_string(connID) + "},\"subscribeList\":[" + list + "]}}";
}

// A node with participants. Every participant listens to a fence of its own besides its paths, so
// that what it received up to now ends at a message that the test sends there.
class NodeFixture : public testing::Test {
 protected:
  ScriptedPeer& join(const std::string& name, int connID, Payloads paths, bool receiveAll = false) {
    ScriptedPeer& peer = *(peers[name] = connectTo(node->port()));
    paths.push_back("fence." + name);
    peer.sendPayload(loginPayload(name, connID, paths, receiveAll));
    EXPECT_TRUE(eventually([&] { return node->countEvents("path=" + paths.back()) == 1; }));
    return peer;
  }

  // Sends the payload and waits until the node has passed it on or taken it.
  void say(const std::string& from, const std::string& payload) {
    const auto isIt = [&](const PassedMessage& message) { return *message.payload == payload; };
    const std::size_t before = node->countPassed(isIt);
    peers.at(from)->sendPayload(payload);
    ASSERT_TRUE(eventually([&] { return node->countPassed(isIt) > before; }));
  }

  // What the participant has been sent up to now.
  Payloads received(const std::string& name) {
    const std::string fence = "[\"NOT\", \"fence." + name + "\", 9, 0, 0]\n";
    EXPECT_TRUE((*node)->injectPayload(fence));
    Payloads payloads;
    for (std::string next = peers.at(name)->readFrame(); next != fence;
         next = peers.at(name)->readFrame()) {
      payloads.push_back(next);
    }
    return payloads;
  }

  std::unique_ptr<RunningNode> node = std::make_unique<RunningNode>();
  std::map<std::string, std::unique_ptr<ScriptedPeer>> peers;
};

}  // namespace valtor::test
