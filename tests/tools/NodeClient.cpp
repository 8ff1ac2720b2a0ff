#include "tools/NodeClient.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <poll.h>
#include <sys/socket.h>

namespace valtor::test {

namespace {

constexpr int kDeadline = 30'000;  // ms, ends a failing test only
constexpr int kQuiet = 300;        // ms without room that count as a full connection

bool ready(int socket, short events, int milliseconds) {
  pollfd entry{socket, events, 0};
  return poll(&entry, 1, milliseconds) > 0;
}

}  // namespace

NodeClient::NodeClient(uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // The socket interface wants the general type.
  const auto* general = static_cast<const sockaddr*>(static_cast<const void*>(&address));
  if (connect(socket_.get(), general, sizeof address) != 0) {
    socket_.reset();
  }
}

bool NodeClient::write(const std::string& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t count =
        ::send(socket_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (count < 0) {
      return false;
    }
    done += static_cast<std::size_t>(count);
  }
  return true;
}

bool NodeClient::send(const std::string& payload) {
  return write(std::to_string(payload.size()) + ":" + payload + ";");
}

bool NodeClient::login(const std::string& name, int connID, const std::string& more) {
  return send("[\"SET\", \"system.connection\", " + std::to_string(connID) +
              ", 0, 0]\n{\"id\":\"login\",\"param\":{\"login\":{\"name\":\"" + name +
              "\",\"connID\":" + std::to_string(connID) + ",\"version\":1}" + more + "}}");
}

bool NodeClient::subscribe(const std::vector<std::string>& paths, bool receiveAll) {
  std::string list;
  for (const std::string& path : paths) {
    list += (list.empty() ? "" : ",") + ("{\"path\":\"" + path + "\"") +
            (receiveAll ? ",\"receiveAll\":true}" : "}");
  }
  return send("[\"SET\", \"system.connection\", 0, 0, 0]\n{\"param\":{\"subscribeList\":[" + list +
              "]}}");
}

bool NodeClient::fillBuffer() {
  char chunk[65536];
  if (!ready(socket_.get(), POLLIN, kDeadline)) {
    return false;
  }
  const ssize_t count = recv(socket_.get(), chunk, sizeof chunk, 0);
  if (count > 0) {
    buffer_.append(chunk, static_cast<std::size_t>(count));
  }
  return count > 0;
}

std::optional<std::string> NodeClient::receive() {
  std::size_t separator = 0;
  while ((separator = buffer_.find(':')) == std::string::npos) {
    if (!fillBuffer()) {
      return std::nullopt;
    }
  }
  const std::size_t length = std::stoul(buffer_.substr(0, separator));
  if (std::to_string(length) != buffer_.substr(0, separator)) {
    return std::nullopt;
  }
  while (buffer_.size() < separator + length + 2) {
    if (!fillBuffer()) {
      return std::nullopt;
    }
  }
  std::string payload = buffer_.substr(separator + 1, length);
  const char footer = buffer_[separator + length + 1];
  buffer_.erase(0, separator + length + 2);
  return footer == ';' ? std::optional(payload) : std::nullopt;
}

bool NodeClient::hasInput() const { return !buffer_.empty() || ready(socket_.get(), POLLIN, 0); }

NodeClient::End NodeClient::waitForEnd() {
  char chunk[65536];
  ssize_t count = 1;
  while (count > 0) {
    if (!ready(socket_.get(), POLLIN, kDeadline)) {
      return End::TimedOut;
    }
    count = recv(socket_.get(), chunk, sizeof chunk, 0);
  }
  return count == 0 ? End::Closed : End::Reset;
}

bool NodeClient::fillsUp(std::size_t bytes) {
  const std::string chunk(65536, 'x');
  while (bytes > 0) {
    if (!ready(socket_.get(), POLLOUT, kQuiet)) {
      return true;
    }
    const ssize_t count = ::send(socket_.get(), chunk.data(), std::min(bytes, chunk.size()),
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN) {
      return false;
    }
    bytes -= count > 0 ? static_cast<std::size_t>(count) : 0;
  }
  return false;
}

}  // namespace valtor::test
