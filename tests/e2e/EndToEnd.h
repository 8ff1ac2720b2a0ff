#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "app/util/Paths.h"
#include "e2e/DaemonProcess.h"
#include "support/BridgeSite.h"

namespace valtor::test {

// The daemon's executable between nodes on port 15000. Its fixed paths lie below the build's own
// folder, which every test starts anew. The database lists both routers.
class EndToEndTest : public testing::Test {
 protected:
  static constexpr uint16_t kPort = 15000;

  EndToEndTest() {
    setPathPrefix(VALTOR_TEST_ROOT);
    namespace fs = std::filesystem;
    fs::remove_all(VALTOR_TEST_ROOT);
    fs::create_directories(paths().databaseDirectory);
    fs::create_directories(fs::path(paths().containerDirectory).parent_path());
    fs::create_directories(fs::path(paths().incomingClientDirectory).parent_path().parent_path());
    fs::create_directories(fs::path(paths().hostAddressFile).parent_path());
    std::ofstream(paths().hostAddressFile) << "00:11:a2:b3:c4:d5\n";
    writeActiveDatabase(site.alphaEntry() + "," + site.betaEntry());
  }
  void TearDown() override {
    if (daemon == nullptr) {
      return;
    }
    daemon->stop();
    if (HasFailure()) {
      std::fputs(daemon->console().c_str(), stderr);
    }
  }

  void startDaemon(const std::vector<std::string>& arguments = {},
                   DaemonProcess::Streams streams = DaemonProcess::Streams::Captured) {
    daemon = std::make_unique<DaemonProcess>(arguments, streams);
  }
  // With both links up, and start-up over: until then requests wait.
  void startComplete() {
    startDaemon();
    ASSERT_TRUE(site.becomesComplete());
    ASSERT_TRUE(isServed());
    ASSERT_TRUE(eventually([this] { return routeRequests() == 2; }));
  }

  // How many links have come up, by the last request that each of them makes.
  std::size_t routeRequests() const {
    return site.controller->countPassed([](const PassedMessage& one) {
      return one.from == "valtorRemote" && one.kind == MessageKind::CMD && one.path == "route";
    });
  }

  // A route command from a panel, different at every call, reaches the router unchanged.
  bool commandReaches(const RunningNode& router) {
    return BridgeSite::crosses(
        *site.controller, router,
        "[\"CMD\", \"route\", 490, 0, 0]\n{ \"id\" : \"" + std::to_string(++number) + "\" }");
  }
  // A status notification of the router reaches the controller's bus unchanged.
  bool statusArrivesFrom(RunningNode& router) {
    return BridgeSite::crosses(
        router, *site.controller,
        "[\"NOT\", \"route\", 100, 0, 0]\n{ \"id\" : \"" + std::to_string(++number) + "\" }");
  }

  // The bodies of the daemon's answers to a request that connection 490 makes on the controller's
  // bus, once there are as many.
  std::vector<std::string> ask(const std::string& kind, const std::string& path,
                               const std::string& members, std::size_t answers = 1) {
    const std::string id = "{\"id\":\"ask" + std::to_string(++number) + "\",";
    (*site.controller)->inject(490, kind, path, 0, id + members + "}");
    std::vector<std::string> bodies;
    EXPECT_TRUE(eventually([&] {
      bodies.clear();
      for (const PassedMessage& one : site.controller->passed()) {
        if (one.source == 101 && one.destination == 490 && one.body().substr(0, id.size()) == id) {
          bodies.emplace_back(one.body());
        }
      }
      return bodies.size() >= answers;
    })) << kind
        << " " << members;
    return bodies;
  }
  bool isServed() {
    const auto answers = ask("GET", "device", R"("objectName":["connectionPoint"])");
    return answers.size() == 1 && answers[0].find(R"("uniqueID":"alpha")") != std::string::npos;
  }

  BridgeSite site{kPort};
  std::unique_ptr<DaemonProcess> daemon;
  int number = 0;
};

}  // namespace valtor::test
