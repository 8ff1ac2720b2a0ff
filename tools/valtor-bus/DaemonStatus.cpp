#include "valtor-bus/DaemonStatus.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/OwnedJSON.h"
#include "app/util/Paths.h"
#include "support/PrintableText.h"
#include "valtor-bus/JSONText.h"

namespace valtor {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongest = 67108864;  // bytes; ten thousand routers need a sixth

std::string textOf(const cJSON* object, const char* name) {
  const char* text = stringMember(object, name);
  return text != nullptr ? printable(text) : "";
}

std::optional<double> numberOf(const cJSON* object, const char* name) {
  const cJSON* member = cJSON_GetObjectItem(object, name);
  return cJSON_IsNumber(member) != 0 ? std::optional(member->valuedouble) : std::nullopt;
}

int portOf(const cJSON* object) {
  const cJSON* member = cJSON_GetObjectItem(object, "port");
  return cJSON_IsNumber(member) != 0 ? member->valueint : 0;
}

DaemonStatus::Router routerOf(const cJSON* item) {
  const auto part = [&](const char* name) { return cJSON_GetObjectItem(item, name); };
  DaemonStatus::Router router;
  router.name = textOf(item, "name");
  router.uniqueID = textOf(item, "uniqueID");
  router.address = textOf(item, "address");
  router.port = portOf(item);
  const std::string state = textOf(item, "state");
  router.up = state == "up";
  router.enabled = state != "disabled" && cJSON_IsFalse(part("enabled")) == 0;
  router.stalled = cJSON_IsTrue(part("stalled")) != 0;
  router.since = numberOf(item, "since");
  router.lost = numberOf(item, "lost").value_or(0);
  const cJSON* time = nullptr;
  cJSON_ArrayForEach(time, arrayMember(item, "losses")) {
    if (cJSON_IsNumber(time) != 0) {
      router.losses.push_back(time->valuedouble);
    }
  }
  router.lossReason = textOf(part("lastLoss"), "reason");
  router.toRouter = numberOf(part("toRouter"), "messages").value_or(0);
  router.fromRouter = numberOf(part("fromRouter"), "messages").value_or(0);
  router.waitingFrames = numberOf(part("waiting"), "frames").value_or(0);
  router.waitingBytes = numberOf(part("waiting"), "bytes").value_or(0);
  router.dropped = numberOf(item, "dropped").value_or(0);
  return router;
}

// Reads until the far end closes; false at the deadline or on an error, with its errno.
bool readAll(int socket, Clock::time_point deadline, std::string& text) {
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
    if (text.size() > kLongest) {
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

std::string DaemonStatus::defaultPath() { return paths().statusSocket; }

UniqueDescriptor DaemonStatus::connectTo(const std::string& path, std::string& problem) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path.size() >= sizeof name.sun_path) {
    problem = problemOf(ENAMETOOLONG, path);
    return UniqueDescriptor();
  }
  std::memcpy(name.sun_path, path.data(), path.size());
  UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid() ||
      connect(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
    problem = problemOf(errno, path);
    return UniqueDescriptor();
  }
  return socket;
}

DaemonStatus DaemonStatus::ask(const std::string& path, std::chrono::milliseconds time) {
  const Clock::time_point deadline = Clock::now() + time;
  DaemonStatus none;
  const UniqueDescriptor socket = connectTo(path, none.problem_);
  if (!socket.valid()) {
    return none;
  }
  std::string text;
  // The closed half tells the daemon at once that there is no question to wait for.
  if (shutdown(socket.get(), SHUT_WR) != 0 || !readAll(socket.get(), deadline, text)) {
    none.problem_ = problemOf(errno, path);
    return none;
  }
  DaemonStatus status(text);
  if (!status.isThere()) {
    status.problem_ = "what " + path + " says is no JSON object";
  }
  return status;
}

DaemonStatus::DaemonStatus(const std::string& text) {
  const std::string whole = compactJSON(text).value_or("");
  if (whole.empty() || whole.front() != '{') {
    return;
  }
  text_ = whole;
  const OwnedJSON document = parseJSON(text_);
  const auto part = [&](const char* member) { return cJSON_GetObjectItem(document.get(), member); };
  const double clock =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  now = numberOf(document.get(), "now").value_or(clock);
  startTime = numberOf(document.get(), "startTime");
  version = textOf(document.get(), "version");
  role = textOf(part("role"), "state");
  roleSince = numberOf(part("role"), "since");
  controllerDown = textOf(part("controller"), "state") == "down";
  controllerSince = numberOf(part("controller"), "since");
  controllerPort = portOf(part("controller"));
  const cJSON* router = nullptr;
  cJSON_ArrayForEach(router, arrayMember(document.get(), "routers")) {
    routers.push_back(routerOf(router));
  }
  queueDelay = numberOf(part("localQueue"), "delayMs").value_or(0) / 1000;
  if (const cJSON* loop = cJSON_GetObjectItem(part("loops"), "last"); cJSON_IsObject(loop) != 0) {
    lastLoop = textOf(loop, "kind") + " on \"" + textOf(loop, "path") + "\" from " +
               textOf(loop, "from") + " to " + textOf(loop, "to");
    lastLoopTime = numberOf(loop, "time").value_or(0);
  }
}

}  // namespace valtor
