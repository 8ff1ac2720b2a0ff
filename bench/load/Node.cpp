#include "load/Node.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>

namespace valtor::bench {

namespace {

constexpr std::size_t kRead = 262'144;  // bytes of one read
constexpr std::string_view kKeepAlive = "[\"SET\", \"\", ";
constexpr std::string_view kLogin = "[\"SET\", \"system.connection\", ";

}  // namespace

Node::Node(EventLoop& loop, std::string address, uint16_t port)
    : loop_(loop), address_(std::move(address)), port_(port) {
  start();
}

Node::~Node() {
  if (slowReader_ != 0) {
    loop_.cancel(slowReader_);
  }
  stop();
}

void Node::start() {
  listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (receiveBuffer_ > 0) {
    setsockopt(listener_.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer_, sizeof receiveBuffer_);
  }
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port_);
  inet_pton(AF_INET, address_.c_str(), &name.sin_addr);
  if (bind(listener_.get(), reinterpret_cast<sockaddr*>(&name), sizeof name) != 0 ||
      listen(listener_.get(), 16) != 0) {
    throw std::system_error(errno, std::generic_category(),
                            "cannot listen on " + address_ + ":" + std::to_string(port_));
  }
  loop_.add(listener_.get(), EPOLLIN, [this](uint32_t) { accept(); });
}

void Node::stop() {
  hangUp();
  if (listener_.valid()) {
    loop_.remove(listener_.get());
    listener_.reset();
  }
}

void Node::hangUp() {
  while (isLinked()) {
    end(*standing_.back());
  }
}

void Node::end(Link& link) {
  loop_.remove(link.socket.get());
  link.socket.reset();
  std::erase_if(standing_, [&link](const auto& one) { return one.get() == &link; });
}

void Node::accept() {
  auto link = std::make_shared<Link>();
  link->socket.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!link->socket.valid()) {
    return;
  }
  const int on = 1;
  setsockopt(link->socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  link->in.resize(kRead);
  standing_.push_back(link);
  ++links_;
  loop_.add(link->socket.get(), reading_ ? EPOLLIN : 0U,
            [this, link](uint32_t events) { handle(*link, events); });
}

void Node::watch(const Link& link) {
  if (link.socket.valid()) {
    loop_.change(link.socket.get(),
                 (reading_ ? EPOLLIN : 0U) | (link.unsent() > 0 ? EPOLLOUT : 0U));
  }
}

void Node::watchAll() {
  for (const auto& link : standing_) {
    watch(*link);
  }
}

void Node::pauseReading() {
  reading_ = false;
  watchAll();
}

void Node::resumeReading() {
  if (slowReader_ != 0) {
    loop_.cancel(std::exchange(slowReader_, 0));
  }
  reading_ = true;
  watchAll();
}

void Node::readSlowly(std::size_t bytesPerSecond) {
  pauseReading();
  if (bytesPerSecond == 0) {
    return;
  }
  slowReader_ = loop_.every(std::chrono::milliseconds(10), [this, bytesPerSecond] {
    if (const auto link = isLinked() ? standing_.back() : nullptr) {
      readSome(*link, bytesPerSecond / 100);
    }
  });
}

void Node::handle(Link& link, uint32_t events) {
  if ((events & EPOLLIN) != 0 && !readSome(link, kRead)) {
    return;
  }
  if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
    end(link);
  } else if ((events & EPOLLOUT) != 0) {
    flush(link);
  }
}

bool Node::readSome(Link& link, std::size_t most) {
  if (link.in.size() - link.inEnd < most) {
    std::memmove(link.in.data(), link.in.data() + link.inBegin, link.inEnd - link.inBegin);
    link.inEnd -= std::exchange(link.inBegin, 0);
    if (link.in.size() - link.inEnd < most) {
      link.in.resize(2 * (link.inEnd + most));
    }
  }
  const ssize_t count = recv(link.socket.get(), link.in.data() + link.inEnd, most, 0);
  if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
    end(link);
    return false;
  }
  if (count > 0) {
    link.inEnd += static_cast<std::size_t>(count);
    takeFrames(link);
  }
  return link.socket.valid();
}

void Node::takeFrames(Link& link) {
  while (link.socket.valid() && link.inBegin < link.inEnd) {
    const std::string_view text(link.in.data() + link.inBegin, link.inEnd - link.inBegin);
    std::size_t length = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    const auto digits = static_cast<std::size_t>(end - text.data());
    if (digits == text.size() || (error == std::errc() && text.size() <= digits + 1 + length)) {
      return;
    }
    if (error != std::errc() || *end != ':' || text[digits + 1 + length] != ';') {
      throw std::runtime_error("broken frame at " + address_ + ": " +
                               std::string(text.substr(0, 100)));
    }
    // Handed out in place: whoever sees it may hang up, which leaves the buffer alone.
    link.inBegin += digits + length + 2;
    takePayload(link, text.substr(digits + 1, length));
  }
  if (link.inBegin == link.inEnd) {
    link.inBegin = link.inEnd = 0;
  }
}

void Node::takePayload(Link& link, std::string_view payload) {
  for (NumberedCheck* check : checks_) {
    if (check->receive(payload)) {
      return;
    }
  }
  if (payload.substr(0, kKeepAlive.size()) == kKeepAlive) {
    const std::string_view body = payload.substr(payload.find('\n') + 1);
    const std::string answer = "[\"ACK\", \"\", 1, 0, 0]\n" + std::string(body);
    sendFrame(link, std::to_string(answer.size()) + ":" + answer + ";");
    return;
  }
  if (payload.substr(0, kLogin.size()) == kLogin) {
    ++link.loginFrames;
  }
  if (onMessage) {
    onMessage(payload);
  }
}

void Node::sendPayload(std::string_view payload) {
  sendFrame(std::to_string(payload.size()) + ":" + std::string(payload) + ";");
}

void Node::sendFrame(std::string_view frame) {
  for (const auto& link : standing_) {
    sendFrame(*link, frame);
  }
}

void Node::sendFrame(Link& link, std::string_view frame) {
  if (link.unsent() == 0) {
    const ssize_t count = ::send(link.socket.get(), frame.data(), frame.size(), MSG_NOSIGNAL);
    if (count > 0) {
      frame.remove_prefix(static_cast<std::size_t>(count));
    }
    if (frame.empty()) {
      return;
    }
  }
  link.out += frame;
  watch(link);
}

void Node::flush(Link& link) {
  while (link.unsent() > 0) {
    const ssize_t count =
        ::send(link.socket.get(), link.out.data() + link.outSent, link.unsent(), MSG_NOSIGNAL);
    if (count <= 0) {
      break;
    }
    link.outSent += static_cast<std::size_t>(count);
  }
  if (link.unsent() == 0) {
    link.out.clear();
    link.outSent = 0;
  } else if (link.outSent > link.out.size() / 2) {
    link.out.erase(0, std::exchange(link.outSent, 0));
  }
  watch(link);
}

}  // namespace valtor::bench
