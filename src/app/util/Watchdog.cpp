#include "app/util/Watchdog.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "app/util/ErrnoText.h"

namespace valtor {

namespace {

// So often at least, whatever the service manager allows.
constexpr std::chrono::microseconds kLongest = std::chrono::hours(1);

thread_local Watchdog* fedHere = nullptr;

std::string_view environment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

// A number above 0, or 0.
int64_t positive(std::string_view text) {
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number > 0 ? number : 0;
}

// Of a socket in the file system, or of an abstract one, which is written with an "@". 0 when it is
// neither or does not fit.
socklen_t addressOf(std::string_view name, sockaddr_un& address) {
  if (name.size() < 2 || name.size() >= sizeof address.sun_path ||
      (name.front() != '/' && name.front() != '@')) {
    return 0;
  }
  address.sun_family = AF_UNIX;
  name.copy(address.sun_path, name.size());
  if (name.front() == '@') {
    address.sun_path[0] = '\0';
  }
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

}  // namespace

Watchdog::Watchdog() {
  const std::chrono::microseconds allowed{positive(environment("WATCHDOG_USEC"))};
  const std::string_view process = environment("WATCHDOG_PID");
  const std::string_view name = environment("NOTIFY_SOCKET");
  if (allowed.count() == 0 || name.empty() || (!process.empty() && positive(process) != getpid())) {
    return;
  }
  addressSize_ = addressOf(name, address_);
  errno = EINVAL;
  if (addressSize_ > 0) {
    socket_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  }
  if (!socket_.valid()) {
    syslog(LOG_WARNING, "The service manager's watchdog cannot be fed: %s\n",
           errnoText(errno).c_str());
    return;
  }
  interval_ = std::clamp(allowed / 2, std::chrono::microseconds(1), kLongest);
  syslog(LOG_INFO, "The service manager's watchdog is fed every %.3f s.\n",
         std::chrono::duration<double>(interval_).count());
}

Watchdog::Feeder::Feeder(Watchdog* watchdog) {
  fedHere = watchdog != nullptr && watchdog->isOn() ? watchdog : nullptr;
}

Watchdog::Feeder::~Feeder() { fedHere = nullptr; }

Watchdog::LockWait::LockWait() {
  if (fedHere != nullptr) {
    fedHere->waitsForLock_ = true;
  }
}

Watchdog::LockWait::~LockWait() {
  if (fedHere != nullptr) {
    fedHere->waitsForLock_ = false;
  }
}

std::optional<Watchdog::Clock::time_point> Watchdog::due() {
  return fedHere != nullptr ? std::optional(fedHere->due_.load()) : std::nullopt;
}

void Watchdog::feed() {
  if (fedHere != nullptr && Clock::now() >= fedHere->due_.load()) {
    fedHere->tell();
  }
}

void Watchdog::progress() {
  if (waitsForLock_ && Clock::now() >= due_.load()) {
    tell();
  }
}

void Watchdog::tell() {
  constexpr std::string_view kAlive = "WATCHDOG=1";
  const ssize_t sent =
      sendto(socket_.get(), kAlive.data(), kAlive.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&address_), addressSize_);
  // A service manager that is behind is told again soon.
  due_ = Clock::now() + (sent >= 0 ? interval_ : interval_ / 4);
}

}  // namespace valtor
