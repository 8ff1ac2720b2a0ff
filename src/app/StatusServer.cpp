#include "app/StatusServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <grp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/PollWait.h"
#include "app/util/StatusLimits.h"

namespace valtor {

namespace {

constexpr mode_t kMode = 0660;
constexpr int kBacklog = 128;

}  // namespace

// One connection.
struct StatusServer::Asker {
  UniqueDescriptor socket;
  std::string request;
  std::string output;
  bool asked = false;  // the document is its answer, or it follows
  bool gone = false;
  bool sawEnd = false;  // it sends no more
  bool more = false;    // lines may wait for it, of which nobody tells
  TrafficTap::FollowerPtr follower;
  Clock::time_point deadline;  // for what it waits for: its line, or its answer to be read

  // A follower may be as slow as it likes: what its ring has no room for is left out.
  bool waitsToBeRead() const { return !output.empty() && follower == nullptr; }
  bool waitsForDeadline() const { return !asked || waitsToBeRead(); }
};

StatusServer::StatusServer(std::string path, Source source)
    : MyThreadClass("StatusServer"),
      path_(std::move(path)),
      source_(std::move(source)),
      wakeEvent_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wakeEvent_.valid() || !listen()) {
    syslog(LOG_WARNING, "Nobody can ask for the status at %s: %s\n", path_.c_str(),
           errnoText(errno).c_str());
    return;
  }
  serving_ = start();
  if (!serving_) {
    closeListener();  // who asks is told that nobody is there
  }
}

StatusServer::~StatusServer() {
  if (serving_) {
    end();
    wake();
    join();
  }
  closeListener();
}

void StatusServer::closeListener() {
  if (listener_.valid()) {
    listener_.reset();
    ::unlink(path_.c_str());
  }
}

// False with errno set.
bool StatusServer::listen() {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  if (path_.size() >= sizeof name.sun_path) {
    errno = ENAMETOOLONG;
    return false;
  }
  path_.copy(name.sun_path, path_.size());
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), error);
  if (error) {
    errno = error.value();
    return false;
  }
  // What a crash left behind; another daemon would have been noticed before.
  struct stat status {};
  if (lstat(path_.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
    ::unlink(path_.c_str());
  }
  UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.valid() ||
      bind(socket.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
    return false;
  }
  listener_ = std::move(socket);  // what lies there is ours to remove now
  // Before anybody can connect.
  if (const group* const readers = getgrnam("adm"); readers != nullptr) {
    static_cast<void>(chown(path_.c_str(), static_cast<uid_t>(-1), readers->gr_gid) == 0);
  }
  return chmod(path_.c_str(), kMode) == 0 && ::listen(listener_.get(), kBacklog) == 0;
}

void StatusServer::wake() {
  const uint64_t one = 1;
  static_cast<void>(::write(wakeEvent_.get(), &one, sizeof one) == sizeof one);
}

void StatusServer::InternalThreadEntry() {
  while (isRunning()) {
    try {
      wait();
    } catch (const std::exception& error) {
      // Nothing here may allocate: there may be no memory still.
      syslog(LOG_ERR, "StatusServer: %s\n", error.what());
      dropAskers([](const Asker&) { return true; });
      pollUntil(wakeEvent_.get(), 0, Clock::now() + kGrace);
    }
  }
  dropAskers([](const Asker&) { return true; });
}

void StatusServer::dropAskers(bool (*ends)(const Asker&)) {
  std::erase_if(askers_, [&](const std::unique_ptr<Asker>& asker) {
    if (!ends(*asker)) {
      return false;
    }
    if (asker->follower) {
      source_.unfollow(asker->follower);
    }
    return true;
  });
}

// One round: waits for whoever needs something, and serves them.
void StatusServer::wait() {
  std::vector<pollfd> entries;
  const short acceptEvents = askers_.size() < kMaxAskers ? POLLIN : 0;
  entries.push_back({wakeEvent_.get(), POLLIN, 0});
  entries.push_back({listener_.get(), acceptEvents, 0});
  auto until = Clock::now() + std::chrono::hours(1);
  for (const auto& asker : askers_) {
    const int events = (asker->sawEnd ? 0 : POLLIN) | (asker->output.empty() ? 0 : POLLOUT);
    entries.push_back({asker->socket.get(), static_cast<short>(events), 0});
    if (asker->waitsForDeadline()) {
      until = std::min(until, asker->deadline);
    }
    if (asker->more && asker->output.empty()) {
      until = Clock::now();
    }
  }
  pollUntil(entries, until);
  if (entries[0].revents != 0) {
    uint64_t count = 0;
    static_cast<void>(::read(wakeEvent_.get(), &count, sizeof count) == sizeof count);
  }
  for (std::size_t i = 0; i < askers_.size(); ++i) {
    serve(*askers_[i], entries[i + 2].revents);
  }
  dropAskers([](const Asker& asker) { return asker.gone; });
  if (entries[1].revents != 0) {
    acceptAll();
  }
}

void StatusServer::acceptAll() {
  while (askers_.size() < kMaxAskers) {
    UniqueDescriptor socket(
        accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket.valid()) {
      const int error = errno;
      if (error != EAGAIN && error != EINTR && error != ECONNABORTED) {
        if (!std::exchange(refuses_, true)) {
          syslog(LOG_ERR, "Nobody can ask for the status for now: %s\n", errnoText(error).c_str());
        }
        // It stays to be accepted, and the poll would come back at once.
        pollUntil(wakeEvent_.get(), POLLIN, Clock::now() + kGrace);
      }
      return;
    }
    refuses_ = false;
    auto asker = std::make_unique<Asker>();
    asker->socket = std::move(socket);
    asker->deadline = Clock::now() + kGrace;
    askers_.push_back(std::move(asker));
  }
}

void StatusServer::serve(Asker& asker, short events) {
  if ((events & POLLERR) != 0 || (asker.sawEnd && (events & POLLHUP) != 0)) {
    asker.gone = true;
  } else if ((events & (POLLIN | POLLHUP)) != 0) {
    readRequest(asker);
  }
  const auto now = Clock::now();
  if (!asker.gone && !asker.asked && now >= asker.deadline) {
    answer(asker);
  }
  if (asker.follower && asker.output.empty()) {
    asker.output = source_.take(*asker.follower);
    asker.more = !asker.output.empty();
  }
  if (!asker.gone && !asker.output.empty()) {
    write(asker);
  }
  if (asker.waitsToBeRead() && now >= asker.deadline) {
    asker.gone = true;
  }
}

void StatusServer::readRequest(Asker& asker) {
  char bytes[kLongestStatusRequest];
  const ssize_t count = recv(asker.socket.get(), bytes, sizeof bytes, 0);
  if (count < 0) {
    asker.gone = errno != EAGAIN && errno != EINTR;
    return;
  }
  asker.sawEnd = count == 0;
  if (asker.asked) {
    return;  // nothing more is expected
  }
  asker.request.append(bytes, static_cast<std::size_t>(count));
  if (count == 0 || asker.request.find('\n') != std::string::npos ||
      asker.request.size() > kLongestStatusRequest) {
    answer(asker);
  }
}

void StatusServer::answer(Asker& asker) {
  constexpr std::string_view kFollow = "follow ";
  asker.asked = true;
  asker.deadline = Clock::now() + kPatience;
  const std::size_t end = asker.request.find('\n');
  if (end == std::string::npos || asker.request.compare(0, kFollow.size(), kFollow) != 0) {
    asker.output = source_.document();
    return;
  }
  const auto follows = [](const std::unique_ptr<Asker>& other) {
    return other->follower != nullptr;
  };
  if (static_cast<std::size_t>(std::count_if(askers_.begin(), askers_.end(), follows)) >=
      kMostFollowers) {
    asker.output = "{\"error\":\"too many follow already\"}\n";
    return;
  }
  const std::string uniqueID = asker.request.substr(kFollow.size(), end - kFollow.size());
  asker.follower = source_.follow(uniqueID, [this] { wake(); });
  if (asker.follower == nullptr) {
    asker.output = "{\"error\":\"no such router\"}\n";
  }
}

void StatusServer::write(Asker& asker) {
  const ssize_t count = ::send(asker.socket.get(), asker.output.data(), asker.output.size(),
                               MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count >= 0) {
    asker.output.erase(0, static_cast<std::size_t>(count));
    if (asker.output.empty() && asker.follower == nullptr) {
      asker.gone = true;  // answered
    }
  } else if (errno != EAGAIN && errno != EINTR) {
    asker.gone = true;
  }
}

}  // namespace valtor
