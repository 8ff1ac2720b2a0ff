#include <thread>

#include "app/util/Watchdog.h"
#include "support/LogCapture.h"
#include "support/NotifySocket.h"
#include "support/TemporaryFolder.h"

namespace valtor {
namespace {

using test::NotifySocket;
using namespace std::chrono_literals;

TEST(Watchdog, IsOnWhereTheEnvironmentAsksThisProcessForIt) {
  const std::string own = std::to_string(getpid());
  const struct {
    const char *time, *process, *socket;
    bool on;
  } cases[] = {{"30000000", own.c_str(), "@valtor-watchdog", true},
               {"30000000", nullptr, "/run/notify", true},
               {"18446744073709551615", own.c_str(), "/run/notify", false},
               {"30000000", "1", "/run/notify", false},
               {"30000000", own.c_str(), nullptr, false},
               {"30000000", own.c_str(), "run/notify", false},
               {nullptr, own.c_str(), "/run/notify", false},
               {"0", own.c_str(), "/run/notify", false},
               {"30 s", own.c_str(), "/run/notify", false}};
  const auto set = [](const char* name, const char* value) {
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
  };
  for (const auto& one : cases) {
    set("WATCHDOG_USEC", one.time);
    set("WATCHDOG_PID", one.process);
    set("NOTIFY_SOCKET", one.socket);
    EXPECT_EQ(Watchdog().isOn(), one.on) << &one - &cases[0];
  }
  test::LogCapture log;
  const std::string tooLong = "/" + std::string(200, 'x');
  set("WATCHDOG_USEC", "1");
  set("NOTIFY_SOCKET", tooLong.c_str());
  EXPECT_FALSE(Watchdog().isOn());
  EXPECT_EQ(log.countContaining("watchdog cannot be fed"), 1);
  for (const char* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
    unsetenv(name);
  }
}

TEST(Watchdog, IsFedByItsThreadAloneAndOnceInHalfOfItsTime) {
  const test::TemporaryFolder folder;
  for (const std::string& name : {folder.at("notify"), std::string("@valtor-watchdog-test")}) {
    const NotifySocket manager(name, "7200000000");  // so that half of it never passes
    Watchdog watchdog;
    std::thread([&] {
      const Watchdog::Feeder feeder(&watchdog);
      Watchdog::feed();
      Watchdog::feed();
      EXPECT_GT(Watchdog::due(), Watchdog::Clock::now() + 50min);
    }).join();
    EXPECT_EQ(manager.next(), "WATCHDOG=1");
    Watchdog::feed();
    EXPECT_FALSE(Watchdog::due());
    EXPECT_EQ(manager.next(0ms), "");
  }
}

}  // namespace
}  // namespace valtor
