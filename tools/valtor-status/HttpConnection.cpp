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

bool isHeader(std::string_view line, std::string_view name) {
  return line.size() > name.size() && line[name.size()] == ':' &&
         strncasecmp(line.data(), name.data(), name.size()) == 0;
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
  hasBody_ = false;
  auto deadline = Clock::now() + (input_.empty() ? kIdle : kHeadTime);
  for (;;) {
    if (const std::size_t end = input_.find(kEndOfHead); end != std::string::npos) {
      takeHead(end + kEndOfHead.size());
      deadline_ = Clock::now() + kAnswerTime;
      return Head::Complete;
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

void HttpConnection::takeHead(std::size_t size) {
  const std::string_view whole = std::string_view(input_).substr(0, size);
  const std::size_t first = whole.find(kEndOfLine) + kEndOfLine.size();
  head_ = whole.substr(0, first);
  for (std::size_t at = first; at < whole.size();) {
    const std::size_t end = whole.find(kEndOfLine, at) + kEndOfLine.size();
    const std::string_view line = whole.substr(at, end - at);
    if (isHeader(line, "Host") || isHeader(line, "Connection")) {
      head_ += line;
    }
    const bool isLength = isHeader(line, "Content-Length");
    hasBody_ = hasBody_ || isLength || isHeader(line, "Transfer-Encoding");
    at = end;
  }
  head_ += kEndOfLine;
  input_.erase(0, size);
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
