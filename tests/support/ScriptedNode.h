#pragma once

#include <arpa/inet.h>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <utility>

#include "app/util/UniqueDescriptor.h"

namespace valtor::test {

// The longest wait for the other side. Only ends a failing test.
inline constexpr std::chrono::milliseconds kDeadline{30000};

inline bool readable(const UniqueDescriptor& socket, std::chrono::milliseconds time) {
  pollfd entry{socket.get(), POLLIN, 0};
  return poll(&entry, 1, static_cast<int>(time.count())) > 0;
}

// One accepted connection of a ScriptedNode: raw bytes and whole frames, each with a deadline.
class ScriptedPeer {
 public:
  explicit ScriptedPeer(UniqueDescriptor socket) : socket_(std::move(socket)) {}

  // The payload of the next frame; throws std::runtime_error when none is complete in time, or when
  // the other side hung up.
  std::string readFrame() {
    for (;;) {
      const std::size_t start = buffer_.find(':') + 1;
      const std::size_t end = start + std::strtoul(buffer_.c_str(), nullptr, 10);
      if (start > 0 && end < buffer_.size()) {
        if (buffer_[end] != ';') {
          throw std::runtime_error("broken frame: " + buffer_.substr(0, 200));
        }
        std::string payload = buffer_.substr(start, end - start);
        buffer_.erase(0, end + 1);
        return payload;
      }
      fill();
    }
  }
  // Reads and drops until the other side hangs up; false when it falls silent instead.
  bool waitForHangUp() {
    char bytes[65536];
    while (readable(socket_, kDeadline)) {
      if (::recv(socket_.get(), bytes, sizeof bytes, 0) <= 0) {
        return true;
      }
    }
    return false;
  }

  void send(const std::string& bytes) {
    const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (std::cmp_not_equal(count, bytes.size())) {
      throw std::runtime_error("cannot send");
    }
  }
  // Sends a payload in its frame.
  void sendPayload(const std::string& payload) {
    send(std::to_string(payload.size()) + ":" + payload + ";");
  }
  void close() { socket_.reset(); }
  void closeReading() { ::shutdown(socket_.get(), SHUT_RD); }
  // One byte of what has come, if anything has.
  void readByte() {
    char byte = 0;
    ::recv(socket_.get(), &byte, 1, MSG_DONTWAIT);
  }
  // Ends the connection without the farewells of TCP, which wait behind what was sent.
  void reset() {
    const linger none{1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    close();
  }

 private:
  void fill() {
    char bytes[65536];
    if (!readable(socket_, kDeadline)) {
      throw std::runtime_error("no frame in time");
    }
    const ssize_t count = ::recv(socket_.get(), bytes, sizeof bytes, 0);
    if (count <= 0) {
      throw std::runtime_error("the other side hung up");
    }
    buffer_.append(bytes, static_cast<std::size_t>(count));
  }

  UniqueDescriptor socket_;
  std::string buffer_;
};

// A bus node that does only what a test tells it: it listens on a loopback address and hands out
// what it accepts. Used by one thread.
class ScriptedNode {
 public:
  // Port 0 takes a free one.
  explicit ScriptedNode(const std::string& address = "127.0.0.1", int port = 0)
      : address_(address), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &name.sin_addr);
    socklen_t size = sizeof name;
    auto* generic = reinterpret_cast<sockaddr*>(&name);
    if (bind(listener_.get(), generic, size) != 0 || listen(listener_.get(), 64) != 0 ||
        getsockname(listener_.get(), generic, &size) != 0) {
      throw std::runtime_error("cannot listen on " + address);
    }
    port_ = ntohs(name.sin_port);
  }

  int port() const { return port_; }
  const std::string& address() const { return address_; }
  // The next connection; throws std::runtime_error when none comes in time.
  std::unique_ptr<ScriptedPeer> accept() {
    if (!readable(listener_, kDeadline)) {
      throw std::runtime_error("nobody connects");
    }
    return std::make_unique<ScriptedPeer>(
        UniqueDescriptor(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
  }
  bool hasConnectionWithin(std::chrono::milliseconds time) { return readable(listener_, time); }
  // Stops listening; connections stay.
  void stop() { listener_.reset(); }

 private:
  std::string address_;
  UniqueDescriptor listener_;
  int port_ = 0;
};

}  // namespace valtor::test
