#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <vector>

#include "app/RunningDaemon.h"
#include "app/util/UniqueDescriptor.h"
#include "support/Repeat.h"

namespace valtor::test {
namespace {

constexpr int kRounds = 200;

// A distance between two events that differs from round to round.
void keepDistance(int round) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(200 * (round % 40));
  while (std::chrono::steady_clock::now() < end) {
  }
}

// A port whose listener's queue is full: attempts to connect to it hang.
class HangingPort {
 public:
  explicit HangingPort(const char* address) : listener_(socket(AF_INET, kKind, 0)) {
    name_.sin_family = AF_INET;
    inet_pton(AF_INET, address, &name_.sin_addr);
    socklen_t size = sizeof name_;
    if (bind(listener_.get(), general(), size) != 0 || listen(listener_.get(), 0) != 0 ||
        getsockname(listener_.get(), general(), &size) != 0) {
      throw std::runtime_error("cannot listen");
    }
    pollfd entry{-1, POLLOUT, 0};
    do {
      fillers_.emplace_back(socket(AF_INET, kKind, 0));
      entry.fd = fillers_.back().get();
      connect(entry.fd, general(), size);
    } while (poll(&entry, 1, 100) > 0);
  }
  int port() const { return ntohs(name_.sin_port); }

 private:
  static constexpr int kKind = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
  sockaddr* general() { return static_cast<sockaddr*>(static_cast<void*>(&name_)); }

  UniqueDescriptor listener_;
  sockaddr_in name_{};
  std::vector<UniqueDescriptor> fillers_;
};

class DaemonRaceTest : public RunningDaemonTest {};

TEST_F(DaemonRaceTest, StandbyWhileLinksAreStillConnecting) {
  HangingPort hanging("127.0.0.4");
  const uint16_t refused = site.beta->port();
  site.beta.reset();
  writeActiveDatabase(site.alphaEntry() + "," + routerEntry("hangs", "127.0.0.4", hanging.port()) +
                      "," + routerEntry("refused", BridgeSite::kBetaAddress, refused));
  site.startController("standby");
  startDaemon(true);
  ASSERT_TRUE(eventually([&] { return answeredRoles() == 1; }));
  for (int round = 0; round < repetitions(kRounds); ++round) {
    site.controller->forget();
    (*site.controller)->setRole("active");
    keepDistance(round);
    (*site.controller)->setRole("standby");
    ASSERT_TRUE(eventually([&] { return answeredRoles() == 2; }));
    ASSERT_TRUE(holdsNothing());
    ASSERT_TRUE(BridgeSite::becomesLeft(*site.alpha));
  }
  EXPECT_GT(site.alpha->countEvents("LOGIN"), 0U);
  EXPECT_GT(log.countContaining("connect error: Connection timed out 127.0.0.4"), 0);
}

TEST_F(DaemonRaceTest, StandbyActiveStandbyDuringStartUpEndsInStandby) {
  std::atomic<int> round{0};
  site.startController("active", [&](const std::string& event) {
    if (event.find("path=mv ") == std::string::npos) {
      return;
    }
    for (const char* role : {"standby", "active", "standby"}) {
      (*site.controller)->setRole(role);
      keepDistance(round);
    }
  });
  site.controller->forget();
  for (; round < repetitions(kRounds); ++round) {
    startDaemon();
    if (round % 3 != 2) {
      // Three announcements, and the answer to the daemon's own question.
      ASSERT_TRUE(eventually([&] { return answeredRoles() == 4; }));
      ASSERT_TRUE(holdsNothing());
    }
    daemon.reset();
    ASSERT_EQ(routerPeerManager(), nullptr);
    ASSERT_TRUE(BridgeSite::becomesLeft(*site.controller));
    ASSERT_TRUE(BridgeSite::becomesLeft(*site.alpha));
    (*site.controller)->setRole("active");
    site.controller->forget();
  }
}

}  // namespace
}  // namespace valtor::test
