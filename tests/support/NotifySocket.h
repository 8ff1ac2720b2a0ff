#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "app/util/PollWait.h"
#include "app/util/UniqueDescriptor.h"

namespace valtor::test {

// A service manager that asks this process to feed its watchdog, by the environment. An abstract
// name begins with "@".
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& name, const char* microseconds = "100000") {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    if (name[0] == '@') {
      address.sun_path[0] = '\0';
    }
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    setenv("WATCHDOG_USEC", microseconds, 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  }
  ~NotifySocket() {
    for (const char* const name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) {
      unsetenv(name);
    }
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // The next thing that it is told; nothing when so long nothing comes.
  std::string next(std::chrono::milliseconds longest = std::chrono::seconds(30)) const {
    char text[256];
    pollUntil(socket_.get(), POLLIN, std::chrono::steady_clock::now() + longest);
    const ssize_t count = recv(socket_.get(), text, sizeof text, MSG_DONTWAIT);
    return {text, count > 0 ? static_cast<std::size_t>(count) : 0};
  }
  // Whether it is fed so often from now on.
  bool isFed(int times) const {
    while (!next(std::chrono::milliseconds(0)).empty()) {
    }
    while (times > 0 && next() == "WATCHDOG=1") {
      --times;
    }
    return times == 0;
  }

 private:
  const UniqueDescriptor socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

}  // namespace valtor::test
