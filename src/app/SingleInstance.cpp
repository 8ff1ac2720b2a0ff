#include "app/SingleInstance.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

#include "app/util/ErrnoText.h"

namespace valtor {

namespace {

// Who listens at the name; false when nobody can be asked.
bool holder(const sockaddr* address, socklen_t size, ucred& credentials) {
  const UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  socklen_t length = sizeof credentials;
  return socket.valid() && connect(socket.get(), address, size) == 0 &&
         getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0;
}

}  // namespace

bool SingleInstance::acquire() {
  sockaddr_un name{};  // the leading NUL makes it abstract
  name.sun_family = AF_UNIX;
  name_.copy(name.sun_path + 1, name_.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_.size());
  const auto* const address = reinterpret_cast<const sockaddr*>(&name);
  UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid() || bind(socket.get(), address, size) != 0) {
    const int error = errno;
    ucred credentials{};
    if (error == EADDRINUSE && holder(address, size, credentials)) {
      if (credentials.uid == 0 || credentials.uid == geteuid()) {
        return false;
      }
      syslog(LOG_WARNING,
             "The name of the running daemon is held by process %d of user %u, which is ignored.\n",
             static_cast<int>(credentials.pid), static_cast<unsigned>(credentials.uid));
      return true;
    }
    syslog(LOG_WARNING, "Whether another daemon runs cannot be told: %s\n",
           errnoText(error).c_str());
    return true;
  }
  ::listen(socket.get(), 1);
  socket_ = std::move(socket);
  return true;
}

}  // namespace valtor
