#include "bus/SocketConnect.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>

#include "app/util/Watchdog.h"

namespace valtor {

namespace {

constexpr std::chrono::milliseconds kSlice{20};

int pendingError(int socket) {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

// Waits for the end of a connect that is under way.
int waitConnected(int socket, std::chrono::milliseconds longest,
                  const std::function<bool()>& giveUp) {
  const auto end = std::chrono::steady_clock::now() + longest;
  while (!giveUp()) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd entry{socket, POLLOUT, 0};
    const int ready =
        poll(&entry, 1, static_cast<int>(std::clamp<long long>(left.count(), 0, kSlice.count())));
    Watchdog::feed();
    if (ready > 0) {
      return pendingError(socket);
    }
    if (ready < 0 && errno != EINTR) {
      return errno;
    }
    if (left.count() <= 0) {
      return ETIMEDOUT;
    }
  }
  return ECANCELED;
}

// A connect to a port of this machine on which nobody listens may get that very port for its own
// end and then meet itself (simultaneous open, RFC 9293 section 3.5). Such a link would stand for
// ever, and keep the port from the node.
bool isOwnEnd(int socket) {
  sockaddr_storage near{};
  sockaddr_storage far{};
  socklen_t nearSize = sizeof near;
  socklen_t farSize = sizeof far;
  return getsockname(socket, reinterpret_cast<sockaddr*>(&near), &nearSize) == 0 &&
         getpeername(socket, reinterpret_cast<sockaddr*>(&far), &farSize) == 0 &&
         nearSize == farSize && std::memcmp(&near, &far, nearSize) == 0;
}

}  // namespace

int connectWithin(int socket, const sockaddr* address, socklen_t length,
                  std::chrono::milliseconds longest, const std::function<bool()>& giveUp) {
  const int flags = fcntl(socket, F_GETFL);
  if (flags < 0 || fcntl(socket, F_SETFL, flags | O_NONBLOCK) != 0) {
    return errno;
  }
  int result = 0;
  if (::connect(socket, address, length) != 0) {
    result =
        errno == EINPROGRESS || errno == EINTR ? waitConnected(socket, longest, giveUp) : errno;
  }
  if (fcntl(socket, F_SETFL, flags) != 0 && result == 0) {
    result = errno;
  }
  return result == 0 && isOwnEnd(socket) ? ECONNREFUSED : result;
}

}  // namespace valtor
