#include "valtor-status/HttpConnection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <strings.h>
#include <sys/socket.h>
#include <utility>

#include "app/util/PollWait.h"

namespace valtor {
namespace {

constexpr std::string_view kEndOfLine = "\r\n";
constexpr std::string_view kEndOfHead = "\r\n\r\n";

bool isSame(std::string_view text, std::string_view other) {
  return text.size() == other.size() && strncasecmp(text.data(), other.data(), text.size()) == 0;
}

// The library would take what stands behind one of these for something else than we do.
bool isBroken(std::string_view line) {
  return line.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = std::min(text.find_first_not_of(" \t"), text.size());
  return text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

}  // namespace

HttpConnection::HttpConnection(UniqueDescriptor socket, std::chrono::milliseconds stall)
    : socket_(std::move(socket)), stall_(stall) {
  // A slow browser's backlog stays with us, where the newest state takes the place of older ones.
  const int size = 131072;
  const int on = 1;
  setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

HttpConnection::~HttpConnection() {
  // A close with bytes unread would reset the connection, and the answer could be lost with it.
  shutdown(socket_.get(), SHUT_WR);
  constexpr std::size_t kMost = 1048576;
  const auto deadline = Clock::now() + std::chrono::seconds(1);
  std::array<char, 4096> rest{};
  for (std::size_t count = 0; count < kMost && (hasBody_ || !input_.empty());) {
    if (pollUntil(socket_.get(), POLLIN, deadline) == 0) {
      break;
    }
    const ssize_t got = recv(socket_.get(), rest.data(), rest.size(), MSG_DONTWAIT);
    if (got <= 0) {
      break;
    }
    count += static_cast<std::size_t>(got);
  }
}

HttpConnection::Head HttpConnection::readHead() {
  head_.clear();
  headers_.clear();
  hasBody_ = false;
  auto deadline = Clock::now() + (input_.empty() ? kIdle : kHeadTime);
  for (;;) {
    if (const std::size_t end = input_.find(kEndOfHead); end != std::string::npos) {
      const bool good = takeHead(end + kEndOfHead.size());
      deadline_ = Clock::now() + kAnswerTime;
      return good ? Head::Complete : Head::Broken;
    }
    if (input_.size() > kLongestHead) {
      return Head::TooLong;
    }
    if (Clock::now() >= deadline) {
      return input_.empty() ? Head::Closed : Head::TooLate;
    }
    if (pollUntil(socket_.get(), POLLIN, deadline) == 0) {
      continue;
    }
    std::array<char, 4096> bytes{};
    const ssize_t count = recv(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
      return Head::Closed;
    }
    if (count > 0) {
      deadline = input_.empty() ? Clock::now() + kHeadTime : deadline;
      input_.append(bytes.data(), static_cast<std::size_t>(count));
    }
  }
}

bool HttpConnection::takeHead(std::size_t size) {
  const std::string whole = input_.substr(0, size);
  input_.erase(0, size);
  const std::string_view lines = whole;
  bool broken = false;
  for (std::size_t at = 0; at + kEndOfLine.size() < size;) {
    const std::size_t end = lines.find(kEndOfLine, at);
    const std::string_view line = lines.substr(at, end - at);
    broken = broken || isBroken(line);
    if (at > 0) {
      takeHeader(line);
    }
    at = end + kEndOfLine.size();
  }
  const std::string request = whole.substr(0, whole.find(kEndOfLine));
  head_ = request + "\r\n" + head_ + "\r\n";
  return !broken;
}

void HttpConnection::takeHeader(std::string_view line) {
  const std::size_t colon = std::min(line.find(':'), line.size());
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = trimmed(line.substr(std::min(colon + 1, line.size())));
  if (isSame(name, "Host") || isSame(name, "Sec-Fetch-Site")) {
    headers_.emplace(name, value);
  } else if (isSame(name, "Connection") && head_.empty()) {
    head_ = isSame(value, "close")        ? "Connection: close\r\n"
            : isSame(value, "keep-alive") ? "Connection: Keep-Alive\r\n"
                                          : "";
  }
  hasBody_ = hasBody_ || isSame(name, "Content-Length") || isSame(name, "Transfer-Encoding");
}

void HttpConnection::answer(const std::string& text) {
  deadline_ = Clock::now() + stall_;
  write(text.data(), text.size());
}

bool HttpConnection::is_writable() const {
  pollfd entry{socket_.get(), POLLRDHUP, 0};
  return ::poll(&entry, 1, 0) == 0;
}

ssize_t HttpConnection::read(char* bytes, std::size_t size) {
  const std::size_t count = std::min(size, head_.size());
  head_.copy(bytes, count);
  head_.erase(0, count);
  return static_cast<ssize_t>(count);
}

ssize_t HttpConnection::write(const char* bytes, std::size_t size) {
  const auto deadline = std::min(deadline_, Clock::now() + stall_);
  for (;;) {
    const ssize_t count = send(socket_.get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      return count;
    }
    if (errno != EAGAIN && errno != EINTR) {
      return -1;
    }
    if (Clock::now() >= deadline) {
      return -1;
    }
    pollUntil(socket_.get(), POLLOUT, deadline);
  }
}

}  // namespace valtor
