#pragma once

#include <cstdio>
#include <gtest/gtest.h>
#include <memory>

#include "app/Daemon.h"
#include "bus/ValtorInterfaceClient.h"
#include "peers/ValtorRouterPeerManager.h"
#include "support/BridgeSite.h"
#include "support/ConsoleCapture.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace valtor::test {

// The daemon's objects in this process, between nodes on free ports. The database lists both
// routers.
class RunningDaemonTest : public testing::Test {
 protected:
  RunningDaemonTest() {
    folder.becomePathPrefix();
    writeActiveDatabase(site.alphaEntry() + "," + site.betaEntry());
  }

  // What was captured holds the report of a failure too.
  void TearDown() override {
    if (HasFailure()) {
      std::fputs(console.text().c_str(), stderr);
    }
  }

  void startDaemon(bool skipDatabase = false) {
    daemon = std::make_unique<Daemon>(skipDatabase, "127.0.0.1", site.controller->port());
    daemon->start();
  }

  // How many roles the daemon has followed, by its answers.
  std::size_t answeredRoles() const {
    return site.controller->countPassed([](const PassedMessage& one) {
      return one.kind == MessageKind::RSP && one.path == "system" && one.source == 101;
    });
  }
  bool holdsNothing() const {
    return daemon->client().hasNoHandlers() && routerPeerManager()->peers().empty();
  }

  LogCapture log;
  ConsoleCapture console;
  TemporaryFolder folder;
  BridgeSite site;
  std::unique_ptr<Daemon> daemon;
};

}  // namespace valtor::test
