#pragma once

#include "support/BridgeSite.h"
#include "support/Vocabulary.h"
#include "tools/ChildProcess.h"

namespace valtor::test {

// The daemon's executable between nodes on port 15000. Its fixed paths lie below the build's own
// folder, which every test starts anew. The database lists both routers.
class EndToEndTest : public testing::Test {
 protected:
  static constexpr uint16_t kPort = 15000;

  EndToEndTest() {
    namespace fs = std::filesystem;
    fs::remove_all(VALTOR_TEST_ROOT);
    for (const fs::path path : {paths().databaseDirectory, paths().containerDirectory,
                                paths().incomingClientDirectory, paths().hostAddressFile}) {
      fs::create_directories(path.parent_path());
    }
    fs::remove(paths().incomingClientDirectory);
    std::ofstream(paths().hostAddressFile) << "00:11:a2:b3:c4:d5\n";
    writeActiveDatabase(site.alphaEntry() + "," + site.betaEntry());
  }
  void TearDown() override {
    if (daemon != nullptr) {
      endDaemon();
    }
  }

  // The options are one argument, or none when empty.
  void startDaemon(const std::string& options = "", const std::string& redirections = ">out 2>&1") {
    // The sanitizers report into files, since the daemon never ends by itself.
    daemon = std::make_unique<ChildProcess>(
        "for tool in ASAN TSAN UBSAN; do"
        " export ${tool}_OPTIONS+=:halt_on_error=1:log_path=report; done; "
        "exec " VALTOR_REMOTE_EXECUTABLE " " +
        options + " " + redirections);
    ASSERT_TRUE(BridgeSite::becomesLinked(*site.controller));
  }
  // Checks that it dies of nothing but this, and that no sanitizer has reported.
  void endDaemon() {
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), -SIGTERM);
    for (const auto& entry : std::filesystem::directory_iterator(daemon->folder().path())) {
      EXPECT_EQ(entry.path().filename(), "out") << fileContent(entry.path());
    }
    if (HasFailure()) {
      std::fputs(daemon->out().c_str(), stderr);
    }
    daemon.reset();
  }
  // With both links up, and start-up over: until then requests wait.
  void startComplete() {
    startDaemon();
    ASSERT_TRUE(site.becomesComplete());
    ASSERT_TRUE(site.isServed());
  }

  BridgeSite site{kPort};
  std::unique_ptr<ChildProcess> daemon;
};

}  // namespace valtor::test
