#pragma once

#include <atomic>
#include <cstring>
#include <list>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

#include "app/util/Mutex.h"
#include "support/Vocabulary.h"
#include "tools/message-node/NodeFixture.h"
#include "valtor-status/PageServer.h"
#include "valtor-status/StatusWatch.h"

namespace valtor::test {

// Stands in for the daemon at its status socket: tells every asker the same, and those who follow
// whatever the test says.
class StatusStandIn {
 public:
  explicit StatusStandIn(std::string path) : path_(std::move(path)) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, path_.c_str(), sizeof name.sun_path - 1);
    listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&name), sizeof name), 0);
    listen(listener_.get(), 64);
    thread_ = std::thread([this] { serve(); });
  }
  ~StatusStandIn() {
    ends_ = true;
    thread_.join();
  }

  void say(const std::string& text) {
    const Locked lock(lock_);
    text_ = text;
  }
  // Takes questions and answers none; those that were asked meanwhile are hung up on in the end.
  void hang(bool hangs) { hangs_ = hangs; }

  // Whoever follows, and a line for all of them; "" hangs up on them.
  std::size_t followers() {
    const Locked lock(lock_);
    return static_cast<std::size_t>(
        std::count_if(followers_.begin(), followers_.end(), [](const UniqueDescriptor& follower) {
          pollfd entry{follower.get(), POLLRDHUP, 0};
          return poll(&entry, 1, 0) == 0;
        }));
  }
  void tell(const std::string& text) {
    const Locked lock(lock_);
    for (const UniqueDescriptor& follower : followers_) {
      send(follower.get(), text.data(), text.size(), MSG_NOSIGNAL);
    }
    if (text.empty()) {
      followers_.clear();
    }
  }

 private:
  void serve() {
    std::list<UniqueDescriptor> silent;
    while (!ends_) {
      pollfd entry{listener_.get(), POLLIN, 0};
      if (poll(&entry, 1, 10) <= 0) {
        continue;
      }
      UniqueDescriptor asker(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      char bytes[1024];
      const ssize_t count = recv(asker.get(), bytes, sizeof bytes, 0);
      const Locked lock(lock_);
      if (count > 0) {
        followers_.push_back(std::move(asker));
      } else if (hangs_) {
        silent.push_back(std::move(asker));
      } else {
        silent.clear();
        send(asker.get(), text_.data(), text_.size(), MSG_NOSIGNAL);
      }
    }
  }

  const std::string path_;
  UniqueDescriptor listener_;
  std::atomic<bool> ends_{false};
  std::atomic<bool> hangs_{false};
  Mutex lock_;
  std::string text_ VALTOR_GUARDED_BY(lock_);
  std::list<UniqueDescriptor> followers_ VALTOR_GUARDED_BY(lock_);
  std::thread thread_;
};

// A router of a status document.
inline std::string routerJSON(const std::string& name, const std::string& state,
                              const std::string& more = "") {
  return R"({"name":")" + name + R"(","uniqueID":"id-)" + name + R"(","state":")" + state + "\"" +
         more + "}";
}
inline std::string documentJSON(const std::string& routers, const std::string& more = "") {
  return R"({"startTime":1,"now":1000000,"role":{"state":"active"},"routers":[)" + routers + "]" +
         more + "}\n";
}

// A browser's side of one connection.
class Browser {
 public:
  explicit Browser(uint16_t port, int receiveBuffer = 0)
      : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (receiveBuffer > 0) {
      setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    EXPECT_TRUE(connects(socket_, port));
  }

  static bool canConnect(uint16_t port) {
    return connects(UniqueDescriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), port);
  }

  void send(const std::string& bytes) {
    // The other side may have had enough before the end.
    static_cast<void>(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  void get(const std::string& path) {
    send("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
  }

  // Everything up to the text; up to the end of the connection or the deadline when it does not
  // come.
  std::string readTo(const std::string& text) {
    char bytes[65536];
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (received_.find(text, read_) == std::string::npos &&
           std::chrono::steady_clock::now() < end && readable(socket_, kDeadline)) {
      const ssize_t count = recv(socket_.get(), bytes, sizeof bytes, 0);
      if (count <= 0) {
        ended_ = true;
        break;
      }
      received_.append(bytes, static_cast<std::size_t>(count));
    }
    const std::size_t found = received_.find(text, read_);
    const std::size_t begin =
        std::exchange(read_, found == std::string::npos ? received_.size() : found + text.size());
    return received_.substr(begin, read_ - begin);
  }
  bool shows(const std::string& text) { return readTo(text).find(text) != std::string::npos; }
  // Whether the other side closes.
  bool ends() {
    readTo("\x01 never");
    return ended_;
  }

 private:
  static bool connects(const UniqueDescriptor& socket, uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }

  UniqueDescriptor socket_;
  std::string received_;
  std::size_t read_ = 0;
  bool ended_ = false;
};

// The server between a stand-in for the daemon and browsers.
class PageFixture : public ::testing::Test {
 protected:
  explicit PageFixture(std::chrono::milliseconds stall = std::chrono::milliseconds(1000)) {
    PageServer::Settings settings;
    settings.port = 0;
    settings.hostNames = {"Controller.example:8080", "fe80::7"};
    settings.version = "9.9";
    settings.stall = stall;
    server.emplace(settings, state, relays);
    EXPECT_TRUE(server->start());
    watch.emplace(
        path, state, [] { return BusParticipant::View(); }, [](const std::string& /*line*/) {});
  }
  ~PageFixture() override { state.end(); }

  uint16_t port() const { return static_cast<uint16_t>(server->port()); }
  // The whole answer to a request on a connection of its own.
  std::string answerTo(const std::string& request) const {
    Browser browser(port());
    browser.send(request);
    return browser.readTo("\x01 never");
  }
  std::string get(const std::string& target) const {
    return answerTo("GET " + target + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n");
  }
  bool eventuallyAnswers(const std::string& target, const std::string& part) const {
    return eventually([&] { return get(target).find(part) != std::string::npos; });
  }

  TemporaryFolder folder;
  const std::string path = folder.at("status");
  LiveState state{"9.9"};
  FollowRelays relays{path};
  std::optional<PageServer> server;
  std::optional<StatusWatch> watch;
};

}  // namespace valtor::test
