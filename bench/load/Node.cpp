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
    : loop_(loop), address_(std::move(address)), port_(port), in_(kRead) {
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
  if (link_.valid()) {
    loop_.remove(link_.get());
    link_.reset();
  }
  out_.clear();
  outSent_ = inBegin_ = inEnd_ = 0;
  loginFrames_ = 0;
}

void Node::accept() {
  UniqueDescriptor accepted(
      accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!accepted.valid()) {
    return;
  }
  hangUp();
  const int on = 1;
  setsockopt(accepted.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  link_ = std::move(accepted);
  ++links_;
  loop_.add(link_.get(), reading_ ? EPOLLIN : 0U, [this](uint32_t events) { handle(events); });
}

void Node::watch() {
  if (link_.valid()) {
    loop_.change(link_.get(), (reading_ ? EPOLLIN : 0U) | (unsent() > 0 ? EPOLLOUT : 0U));
  }
}

void Node::pauseReading() {
  reading_ = false;
  watch();
}

void Node::resumeReading() {
  if (slowReader_ != 0) {
    loop_.cancel(std::exchange(slowReader_, 0));
  }
  reading_ = true;
  watch();
}

void Node::readSlowly(std::size_t bytesPerSecond) {
  pauseReading();
  if (bytesPerSecond == 0) {
    return;
  }
  slowReader_ = loop_.every(std::chrono::milliseconds(10), [this, bytesPerSecond] {
    if (link_.valid()) {
      readSome(bytesPerSecond / 100);
    }
  });
}

void Node::handle(uint32_t events) {
  if ((events & EPOLLIN) != 0 && !readSome(kRead)) {
    return;
  }
  if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
    hangUp();
  } else if ((events & EPOLLOUT) != 0) {
    flush();
  }
}

bool Node::readSome(std::size_t most) {
  if (in_.size() - inEnd_ < most) {
    std::memmove(in_.data(), in_.data() + inBegin_, inEnd_ - inBegin_);
    inEnd_ -= std::exchange(inBegin_, 0);
    if (in_.size() - inEnd_ < most) {
      in_.resize(2 * (inEnd_ + most));
    }
  }
  const ssize_t count = recv(link_.get(), in_.data() + inEnd_, most, 0);
  if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
    hangUp();
    return false;
  }
  if (count > 0) {
    inEnd_ += static_cast<std::size_t>(count);
    takeFrames();
  }
  return link_.valid();
}

void Node::takeFrames() {
  const int link = links_;
  while (links_ == link && inBegin_ < inEnd_) {
    const std::string_view text(in_.data() + inBegin_, inEnd_ - inBegin_);
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
    // Handed out in place: whoever sees it may hang up, which only forgets the buffer.
    inBegin_ += digits + length + 2;
    takePayload(text.substr(digits + 1, length));
  }
  if (inBegin_ == inEnd_) {
    inBegin_ = inEnd_ = 0;
  }
}

void Node::takePayload(std::string_view payload) {
  for (NumberedCheck* check : checks_) {
    if (check->receive(payload)) {
      return;
    }
  }
  if (payload.substr(0, kKeepAlive.size()) == kKeepAlive) {
    const std::string_view body = payload.substr(payload.find('\n') + 1);
    sendPayload("[\"ACK\", \"\", 1, 0, 0]\n" + std::string(body));
    return;
  }
  if (payload.substr(0, kLogin.size()) == kLogin) {
    ++loginFrames_;
  }
  if (onMessage) {
    onMessage(payload);
  }
}

void Node::sendPayload(std::string_view payload) {
  sendFrame(std::to_string(payload.size()) + ":" + std::string(payload) + ";");
}

void Node::sendFrame(std::string_view frame) {
  if (!link_.valid()) {
    return;
  }
  if (unsent() == 0) {
    const ssize_t count = ::send(link_.get(), frame.data(), frame.size(), MSG_NOSIGNAL);
    if (count > 0) {
      frame.remove_prefix(static_cast<std::size_t>(count));
    }
    if (frame.empty()) {
      return;
    }
  }
  out_ += frame;
  watch();
}

void Node::flush() {
  while (unsent() > 0) {
    const ssize_t count = ::send(link_.get(), out_.data() + outSent_, unsent(), MSG_NOSIGNAL);
    if (count <= 0) {
      break;
    }
    outSent_ += static_cast<std::size_t>(count);
  }
  if (unsent() == 0) {
    out_.clear();
    outSent_ = 0;
  } else if (outSent_ > out_.size() / 2) {
    out_.erase(0, std::exchange(outSent_, 0));
  }
  watch();
}

}  // namespace valtor::bench
