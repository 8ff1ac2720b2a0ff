#include "support/StatusSocket.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "app/util/ErrnoText.h"
#include "app/util/Paths.h"

namespace valtor {
namespace {

using Clock = std::chrono::steady_clock;

// Reads until the far end closes; false at the deadline or on an error, with its errno.
bool readAll(int socket, Clock::time_point deadline, std::size_t longest, std::string& text) {
  std::array<char, 65536> part{};
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd entry{socket, POLLIN, 0};
    if (left <= 0 || poll(&entry, 1, static_cast<int>(left)) == 0) {
      errno = ETIMEDOUT;
      return false;
    }
    const ssize_t count = recv(socket, part.data(), part.size(), MSG_DONTWAIT);
    if (count == 0) {
      return true;
    }
    if (count > 0) {
      text.append(part.data(), static_cast<std::size_t>(count));
    } else if (errno != EINTR && errno != EAGAIN) {
      return false;
    }
    if (text.size() > longest) {
      errno = EMSGSIZE;
      return false;
    }
  }
}

std::string problemOf(int error, const std::string& path) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return "";
    case EACCES:
      return "may not open " + path + ": only root and the group adm may";
    case ECONNREFUSED:
      return path + " lies there from a daemon that is gone";
    case EAGAIN:
    case ETIMEDOUT:
      return "nobody answers at " + path;
    default:
      return "cannot ask at " + path + ": " + errnoText(error);
  }
}

}  // namespace

std::string defaultStatusSocket() { return paths().statusSocket; }

UniqueDescriptor connectToStatus(const std::string& path, std::string& problem) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path.size() >= sizeof name.sun_path) {
    problem = problemOf(ENAMETOOLONG, path);
    errno = ENAMETOOLONG;
    return UniqueDescriptor();
  }
  std::memcpy(name.sun_path, path.data(), path.size());
  UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid() ||
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
    const int error = errno;
    problem = problemOf(error, path);
    socket.reset();
    errno = error;
    return socket;
  }
  return socket;
}

StatusAnswer askForStatus(const std::string& path, std::chrono::milliseconds time,
                          std::size_t longest) {
  const Clock::time_point deadline = Clock::now() + time;
  StatusAnswer answer;
  const UniqueDescriptor socket = connectToStatus(path, answer.problem);
  if (!socket.valid()) {
    return answer;
  }
  // The closed half tells the daemon at once that there is no question to wait for.
  if (shutdown(socket.get(), SHUT_WR) != 0 ||
      !readAll(socket.get(), deadline, longest, answer.text)) {
    return {"", problemOf(errno, path)};
  }
  if (answer.text.empty()) {
    answer.problem = path + " says nothing";
  }
  return answer;
}

}  // namespace valtor
