#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "app/util/Paths.h"
#include "message-node/RunningNode.h"
#include "support/Eventually.h"

namespace valtor::test {

// The description of one router in a database file; more are its further members.
inline std::string routerEntry(const std::string& id, const std::string& address, int port,
                               const std::string& more = "") {
  return R"({"type":"valtor","name":")" + id + R"(","uniqueID":")" + id +
         R"(","phy":[{"type":"tcp","ipAddress":")" + address + R"(","port":)" +
         std::to_string(port) + R"(,"server":true}])" + more + "}";
}

// Makes a database with these entries, comma between them, the active one.
inline void writeActiveDatabase(const std::string& entries) {
  const std::string directory = paths().databaseDirectory;
  std::filesystem::create_directories(directory + "main");
  std::ofstream(directory + "activeDatabase.json") << "main\n";
  std::ofstream(directory + "main/connectionPoints.json")
      << R"({"connectionPoint":[)" + entries + "]}";
}

// What stands around a daemon: the controller's node, and those of two routers, alpha and beta. A
// node may be destroyed and started again.
class BridgeSite {
 public:
  static constexpr const char* kAlphaAddress = "127.0.0.2";
  static constexpr const char* kBetaAddress = "127.0.0.3";

  // Every node takes this port, or one that is free.
  explicit BridgeSite(uint16_t port = 0) : port_(port) {
    startController();
    alpha = start(kAlphaAddress);
    beta = start(kBetaAddress);
  }

  // Answers the requests of a link-up.
  void startController(MessageNode::Options options = {}) {
    controller.reset();
    options.port = port_;
    options.answers = R"({"db":{"logicalSources":[11],"logicalDests":[12]},"route":{"stat":[13]}})";
    controller = std::make_unique<RunningNode>(std::move(options));
  }
  void startController(const char* role) {
    MessageNode::Options options;
    options.role = role;
    startController(std::move(options));
  }
  // A router's node.
  std::unique_ptr<RunningNode> start(const char* address, MessageNode::Options options = {}) const {
    options.address = address;
    options.port = port_;
    return std::make_unique<RunningNode>(std::move(options));
  }

  std::string alphaEntry() const { return routerEntry("alpha", kAlphaAddress, alpha->port()); }
  std::string betaEntry() const { return routerEntry("beta", kBetaAddress, beta->port()); }

  // Whether the daemon logs in on the node and subscribes to what it listens to there.
  static bool becomesLinked(RunningNode& node) {
    return eventually([&] {
      const auto there = node->participants();
      return !there.empty() && there.back().subscriptions.size() >= 6;
    });
  }
  static bool becomesLeft(RunningNode& node) {
    return eventually([&] { return node->participants().empty(); });
  }
  bool becomesComplete() const {
    return becomesLinked(*controller) && becomesLinked(*alpha) && becomesLinked(*beta);
  }

  // How often this payload, to the byte, has passed through the node.
  static std::size_t count(const RunningNode& node, const std::string& payload) {
    return node.countPassed([&](const PassedMessage& one) { return *one.payload == payload; });
  }
  // Whether what is put on one bus comes out on the other, to the byte.
  static bool crosses(RunningNode& from, const RunningNode& to, const std::string& payload) {
    from->injectPayload(payload);
    return eventually([&] { return count(to, payload) > 0; });
  }
  // A route command from a panel, different at every call, reaches the router unchanged.
  bool commandReaches(const RunningNode& router) {
    return crosses(*controller, router,
                   "[\"CMD\", \"route\", 490, 0, 0]\n{ \"id\" : " + nextNumber() + "}");
  }
  // A status notification of the router reaches the controller's bus unchanged.
  bool statusArrivesFrom(RunningNode& router) {
    return crosses(router, *controller,
                   "[\"NOT\", \"route\", 100, 0, 0]\n{ \"id\" : " + nextNumber() + "}");
  }

  // Whether the daemon answers a request on the controller's bus with the list of its routers.
  bool isServed() {
    const std::string id = "{\"id\":\"ask" + nextNumber() + "\",";
    (*controller)->inject(490, "GET", "device", 0, id + R"("objectName":["connectionPoint"]})");
    return eventually([&] {
      return controller->countPassed([&](const PassedMessage& one) {
        return one.source == 101 && one.body().rfind(id, 0) == 0 &&
               one.body().find(R"("uniqueID":"beta")") != std::string::npos;
      }) > 0;
    });
  }

  // How many roles the daemon has followed, by its answers.
  std::size_t answeredRoles() const {
    return controller->countPassed([](const PassedMessage& one) {
      return one.kind == MessageKind::RSP && one.path == "system" && one.source == 101;
    });
  }

  std::unique_ptr<RunningNode> controller;
  std::unique_ptr<RunningNode> alpha;
  std::unique_ptr<RunningNode> beta;

 private:
  std::string nextNumber() { return std::to_string(++number_); }

  const uint16_t port_;
  int number_ = 0;
};

}  // namespace valtor::test
