#include "support/ScriptedNode.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>

namespace valtor::test {

namespace {

// Only ends a failing test.
constexpr std::chrono::milliseconds kDeadline{30000};

bool readable(int descriptor, std::chrono::milliseconds time) {
  pollfd entry{descriptor, POLLIN, 0};
  return poll(&entry, 1, static_cast<int>(time.count())) > 0;
}

}  // namespace

bool ScriptedPeer::fill(std::chrono::milliseconds time) {
  if (!readable(socket_.get(), time)) {
    return false;
  }
  char bytes[65536];
  const ssize_t count = ::recv(socket_.get(), bytes, sizeof bytes, 0);
  if (count <= 0) {
    throw std::runtime_error("the other side hung up");
  }
  buffer_.append(bytes, static_cast<std::size_t>(count));
  return true;
}

std::string ScriptedPeer::readFrame() {
  for (;;) {
    const std::size_t colon = buffer_.find(':');
    if (colon != std::string::npos) {
      const std::size_t length = std::strtoul(buffer_.c_str(), nullptr, 10);
      if (buffer_.size() >= colon + 1 + length + 1) {
        if (buffer_[colon + 1 + length] != ';') {
          throw std::runtime_error("broken frame: " + buffer_.substr(0, 200));
        }
        const std::string payload = buffer_.substr(colon + 1, length);
        buffer_.erase(0, colon + 1 + length + 1);
        return payload;
      }
    }
    if (!fill(kDeadline)) {
      throw std::runtime_error("no frame in time");
    }
  }
}

bool ScriptedPeer::hasFrameWithin(std::chrono::milliseconds time) {
  return !buffer_.empty() || readable(socket_.get(), time);
}

bool ScriptedPeer::waitForHangUp() {
  const auto end = std::chrono::steady_clock::now() + kDeadline;
  try {
    while (std::chrono::steady_clock::now() < end) {
      fill(std::chrono::milliseconds(100));
    }
  } catch (const std::runtime_error&) {
    return true;
  }
  return false;
}

void ScriptedPeer::send(const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t count =
        ::send(socket_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (count <= 0) {
      throw std::runtime_error("cannot send");
    }
    done += static_cast<std::size_t>(count);
  }
}

void ScriptedPeer::sendPayload(const std::string& payload) {
  send(std::to_string(payload.size()) + ":" + payload + ";");
}

ScriptedNode::ScriptedNode(const std::string& address, int port)
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

bool ScriptedNode::hasConnectionWithin(std::chrono::milliseconds time) {
  return readable(listener_.get(), time);
}

std::unique_ptr<ScriptedPeer> ScriptedNode::accept() {
  if (!readable(listener_.get(), kDeadline)) {
    throw std::runtime_error("nobody connects");
  }
  return std::make_unique<ScriptedPeer>(
      UniqueDescriptor(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
}

}  // namespace valtor::test
