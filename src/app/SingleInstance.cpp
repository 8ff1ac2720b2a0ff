#include "app/SingleInstance.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include "app/util/ErrnoText.h"

namespace valtor {

namespace {

constexpr std::chrono::seconds kPatience{1};
constexpr std::chrono::milliseconds kPause{50};

// Who listens at the name; false, with errno, when it cannot be asked.
bool holder(const sockaddr* address, socklen_t size, ucred& credentials) {
  const UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  socklen_t length = sizeof credentials;
  return socket.valid() && connect(socket.get(), address, size) == 0 &&
         getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0;
}

}  // namespace

bool SingleInstance::acquire() {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  Answer answer = tryOnce();
  while (answer == Answer::Unclear && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(kPause);
    answer = tryOnce();
  }
  if (answer == Answer::Unclear || answer == Answer::Failed) {
    syslog(LOG_WARNING, "Whether another daemon runs cannot be told: %s\n",
           errnoText(errno).c_str());
  }
  return answer != Answer::Held;
}

// Failed and Unclear with errno.
SingleInstance::Answer SingleInstance::tryOnce() {
  sockaddr_un name{};  // the leading NUL makes it abstract
  name.sun_family = AF_UNIX;
  name_.copy(name.sun_path + 1, name_.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_.size());
  const auto* const address = reinterpret_cast<const sockaddr*>(&name);
  UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  // Nobody accepts: who has asked stays in the line, which must not fill up.
  if (socket.valid() && bind(socket.get(), address, size) == 0 &&
      ::listen(socket.get(), SOMAXCONN) == 0) {
    socket_ = std::move(socket);
    return Answer::Acquired;
  }
  if (!socket.valid() || errno != EADDRINUSE) {
    return Answer::Failed;
  }
  ucred credentials{};
  if (!holder(address, size, credentials)) {
    // A full line (EAGAIN) has somebody who listens: to be refused is better than to feed it. One
    // that refuses is between bind and listen, or has just gone.
    return errno == EAGAIN ? Answer::Held : Answer::Unclear;
  }
  if (credentials.uid == 0 || credentials.uid == geteuid()) {
    // A process that was killed while it started another leaves the name to that one, until it has
    // become its program. One of another namespace has the number 0.
    const bool isGone = credentials.pid > 0 && kill(credentials.pid, 0) != 0 && errno == ESRCH;
    return isGone ? Answer::Unclear : Answer::Held;
  }
  syslog(LOG_WARNING,
         "The name of the running daemon is held by process %d of user %u, which is ignored.\n",
         static_cast<int>(credentials.pid), static_cast<unsigned>(credentials.uid));
  return Answer::Stranger;
}

}  // namespace valtor
