#include "load/FaultyLink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <system_error>

#include "load/Samples.h"

namespace valtor::bench {

namespace {

constexpr std::size_t kMostWaiting = 1 << 20;  // bytes of a way; more stays with the sender

sockaddr_in place(const std::string& address, uint16_t port) {
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &name.sin_addr);
  return name;
}

// Whether the far end, in this network, still keeps its side of a connection. The end of the stream
// tells that only behind all that is still to be read.
bool isKept(int socket) {
  const auto text = [socket](auto nameOf) {
    sockaddr_in name{};
    socklen_t size = sizeof name;
    nameOf(socket, reinterpret_cast<sockaddr*>(&name), &size);
    char place[16];
    std::snprintf(place, sizeof place, "%08X:%04X", name.sin_addr.s_addr, ntohs(name.sin_port));
    return std::string(place);
  };
  const std::string far = text(getpeername);
  const std::string near = text(getsockname);
  std::ifstream table("/proc/net/tcp");
  std::string number;
  std::string local;
  std::string remote;
  std::string state;
  while (table >> number >> local >> remote >> state) {
    if (local == far && remote == near &&
        (state == "01" || state == "08")) {  // established, or we have closed
      return true;
    }
    table.ignore(1000, '\n');
  }
  return false;
}

UniqueDescriptor newSocket() {
  return UniqueDescriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

}  // namespace

FaultyLink::FaultyLink(EventLoop& loop, std::string address, uint16_t port, uint16_t nodePort)
    : loop_(loop), address_(std::move(address)), port_(port), nodePort_(nodePort) {
  listen();
  // What is due later, and the next byte of a dribble.
  clock_ = loop_.every(std::chrono::milliseconds(1), [this] {
    if (daemon_.valid()) {
      write(kToNode);
    }
    if (daemon_.valid()) {
      write(kToDaemon);
    }
  });
}

FaultyLink::~FaultyLink() {
  loop_.cancel(clock_);
  end(false);
  stopListening();
}

void FaultyLink::listen() {
  listener_ = newSocket();
  const int on = 1;
  setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in name = place(address_, port_);
  if (bind(listener_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
      ::listen(listener_.get(), 16) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot listen on " + address_);
  }
  loop_.add(listener_.get(), EPOLLIN, [this](uint32_t) { accept(); });
}

void FaultyLink::stopListening() {
  if (listener_.valid()) {
    loop_.remove(listener_.get());
    listener_.reset();
  }
}

void FaultyLink::accept() {
  UniqueDescriptor accepted(
      accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!accepted.valid()) {
    return;
  }
  doubled_ += daemon_.valid() && isKept(daemon_.get()) ? 1 : 0;
  end(false);
  daemon_ = std::move(accepted);
  node_ = newSocket();
  const sockaddr_in name = place(address_, nodePort_);
  // On loopback it stands at once or never.
  connect(node_.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name);
  const int on = 1;
  for (const int one : {daemon_.get(), node_.get()}) {
    setsockopt(one, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    loop_.add(one, EPOLLIN, [this, one](uint32_t events) { handle(events, one == daemon_.get()); });
  }
  ++links_;
  if (const Call call = std::exchange(atLink_, nullptr)) {
    call();
  }
  watch();
}

void FaultyLink::handle(uint32_t events, bool fromDaemon) {
  const Way in = fromDaemon ? kToNode : kToDaemon;
  const Way out = fromDaemon ? kToDaemon : kToNode;
  if ((events & EPOLLIN) != 0 && !read(in)) {
    return;
  }
  if ((events & (EPOLLERR | EPOLLHUP)) != 0 && !(events & EPOLLIN)) {
    if (swallows_ && !fromDaemon) {
      loop_.remove(node_.get());
      node_.reset();
    } else {
      end(false);
    }
    return;
  }
  write(out);
}

bool FaultyLink::isReading(Way way) const {
  return !stalls_ && (swallows_ || pipes_[way].bytes < kMostWaiting);
}

bool FaultyLink::read(Way way) {
  std::string data(64 * 1024, '\0');
  const ssize_t count = recv(source(way), data.data(), data.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
    return true;
  }
  if (count <= 0) {
    if (swallows_ && way == kToDaemon) {
      loop_.remove(node_.get());
      node_.reset();
    } else {
      end(false);
    }
    return false;
  }
  if (!swallows_ && !(halfClosed_ && way == kToDaemon)) {
    data.resize(static_cast<std::size_t>(count));
    hold(way, std::move(data));
    write(way);
  }
  return daemon_.valid();
}

void FaultyLink::hold(Way way, std::string&& data) {
  Pipe& pipe = pipes_[way];
  if (way == kToNode && afterLogin_) {
    // The first frame says how long it is.
    pipe.left = data.find(':') + 1 + std::stoul(data) + 1;
    pipe.call = std::exchange(afterLogin_, nullptr);
  }
  pipe.bytes += data.size();
  pipe.waiting.emplace_back(nowNs() + std::chrono::nanoseconds(pipe.delay).count(),
                            std::move(data));
}

void FaultyLink::write(Way way) {
  Pipe& pipe = pipes_[way];
  while (!stalls_ && !swallows_ && !pipe.waiting.empty() && pipe.waiting.front().first <= nowNs()) {
    if (pipe.call && pipe.left == 0) {
      const Call call = std::exchange(pipe.call, nullptr);
      call();
      continue;  // whatever it did
    }
    std::string& data = pipe.waiting.front().second;
    std::size_t most = dribbles_ ? 1 : data.size();
    most = pipe.call ? std::min(most, pipe.left) : most;
    const ssize_t count = send(sink(way), data.data(), most, MSG_NOSIGNAL);
    if (count <= 0) {
      break;
    }
    const auto sent = static_cast<std::size_t>(count);
    pipe.left -= pipe.call ? sent : 0;
    pipe.bytes -= sent;
    data.erase(0, sent);
    if (data.empty()) {
      pipe.waiting.pop_front();
    }
    if (dribbles_) {
      break;
    }
  }
  watch();
}

void FaultyLink::watch() {
  for (const Way way : {kToNode, kToDaemon}) {
    if (source(way) >= 0 && daemon_.valid()) {
      const Way back = way == kToNode ? kToDaemon : kToNode;
      const bool blocked = !stalls_ && !dribbles_ && !pipes_[back].waiting.empty() &&
                           pipes_[back].waiting.front().first <= nowNs();
      loop_.change(source(way), (isReading(way) ? EPOLLIN : 0U) | (blocked ? EPOLLOUT : 0U));
    }
  }
}

void FaultyLink::end(bool withReset) {
  for (UniqueDescriptor* one : {&daemon_, &node_}) {
    if (one->valid()) {
      const linger now{1, 0};
      if (withReset) {
        setsockopt(one->get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
      }
      loop_.remove(one->get());
      one->reset();
    }
  }
  for (Pipe& pipe : pipes_) {
    pipe.waiting.clear();
    pipe.bytes = 0;
  }
  halfClosed_ = swallows_ = false;
}

void FaultyLink::cut() { end(false); }

void FaultyLink::reset() { end(true); }

void FaultyLink::halfClose() {
  if (daemon_.valid()) {
    halfClosed_ = true;
    shutdown(daemon_.get(), SHUT_WR);
  }
}

void FaultyLink::endDaemonSide() {
  while (daemon_.valid() && pipes_[kToNode].bytes < kMostWaiting) {
    std::string data(64 * 1024, '\0');
    const ssize_t count = recv(daemon_.get(), data.data(), data.size(), 0);
    if (count <= 0) {
      break;
    }
    data.resize(static_cast<std::size_t>(count));
    hold(kToNode, std::move(data));
  }
  for (const auto& [due, data] : pipes_[kToNode].waiting) {
    if (node_.valid() && send(node_.get(), data.data(), data.size(), MSG_NOSIGNAL) !=
                             static_cast<ssize_t>(data.size())) {
      break;
    }
  }
  if (node_.valid()) {
    loop_.remove(node_.get());
    orphan_ = std::move(node_);
  }
  end(false);
}

void FaultyLink::delay(Way way, std::chrono::milliseconds time) { pipes_[way].delay = time; }

void FaultyLink::dribble() { dribbles_ = true; }

void FaultyLink::stall() {
  stalls_ = true;
  watch();
}

void FaultyLink::swallow() {
  swallows_ = true;
  watch();
}

void FaultyLink::heal() {
  if (swallows_) {
    end(false);
  }
  dribbles_ = stalls_ = false;
  orphan_.reset();
  for (Pipe& pipe : pipes_) {
    pipe.delay = std::chrono::milliseconds(0);
  }
  watch();
}

void FaultyLink::after(Way way, std::size_t bytes, std::function<void()> call) {
  pipes_[way].left = bytes;
  pipes_[way].call = std::move(call);
}

}  // namespace valtor::bench
