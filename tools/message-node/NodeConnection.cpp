#include "message-node/NodeConnection.h"

#include <algorithm>
#include <array>
#include <utility>

namespace valtor {

namespace {

constexpr std::size_t kReadSize = 65536;
// Reads in a row before other connections get their turn.
constexpr int kReadsPerTurn = 16;
// Frames that go out with one system call.
constexpr std::size_t kFramesPerWrite = 64;

std::string addressOf(const asio::ip::tcp::socket& socket) {
  asio::error_code error;
  const auto endpoint = socket.remote_endpoint(error);
  return error ? "unknown" : endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

bool wouldBlock(const asio::error_code& error) {
  return error == asio::error::would_block || error == asio::error::try_again ||
         error == asio::error::interrupted;
}

}  // namespace

NodeConnection::NodeConnection(asio::ip::tcp::socket socket, uint64_t number,
                               std::size_t unsentLimit, Owner& owner)
    : socket_(std::move(socket)),
      number_(number),
      unsentLimit_(unsentLimit),
      owner_(owner),
      address_(addressOf(socket_)),
      readBuffer_(kReadSize) {
  parser_.setMessageCallback([this](const std::vector<PellInternalMessage>& messages) {
    for (const PellInternalMessage& message : messages) {
      if (socket_.is_open()) {
        ++messagesReceived;
        owner_.onMessage(*this, message);
      }
    }
  });
}

void NodeConnection::start() {
  asio::error_code error;
  socket_.set_option(asio::ip::tcp::no_delay(true), error);
  socket_.non_blocking(true, error);
  if (error) {
    close("cannot be made non-blocking: " + error.message());
    return;
  }
  waitForInput();
}

void NodeConnection::send(std::shared_ptr<const std::string> bytes) {
  if (!socket_.is_open() || bytes->empty()) {
    return;
  }
  unsentBytes_ += bytes->size();
  queue_.push_back(std::move(bytes));
  writeQueue();
  if (socket_.is_open() && unsentBytes_ > unsentLimit_) {
    close(std::to_string(unsentBytes_) + " unsent bytes pass the limit of " +
          std::to_string(unsentLimit_));
  }
}

void NodeConnection::close(const std::string& reason, Ending ending) {
  if (!socket_.is_open()) {
    return;
  }
  const auto self = shared_from_this();
  asio::error_code ignored;
  if (ending == Ending::Reset) {
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);
  }
  socket_.close(ignored);
  queue_.clear();
  frontWritten_ = 0;
  unsentBytes_ = 0;
  owner_.onClosed(*this, reason);
}

void NodeConnection::setReadingPaused(bool paused) {
  readingPaused_ = paused;
  waitForInput();
}

void NodeConnection::setWritingPaused(bool paused) {
  writingPaused_ = paused;
  writeQueue();
}

std::string NodeConnection::displayName() const {
  return name.empty() ? "#" + std::to_string(number_) : name;
}

// Waiting for readiness instead of handing a buffer to the system: a pause then leaves every byte
// in the socket, as a peer that does not read would.
void NodeConnection::waitForInput() {
  if (readingPaused_ || waitingForInput_ || !socket_.is_open()) {
    return;
  }
  waitingForInput_ = true;
  socket_.async_wait(asio::ip::tcp::socket::wait_read,
                     [self = shared_from_this()](const asio::error_code& error) {
                       self->waitingForInput_ = false;
                       if (!error) {
                         self->readInput();
                       }
                     });
}

void NodeConnection::readInput() {
  for (int turn = 0; turn < kReadsPerTurn && !readingPaused_ && socket_.is_open(); ++turn) {
    asio::error_code error;
    const std::size_t count = socket_.read_some(asio::buffer(readBuffer_), error);
    if (wouldBlock(error)) {
      break;
    }
    if (error) {
      close(error == asio::error::eof ? "hung up" : "read failed: " + error.message());
      return;
    }
    parser_.parse(readBuffer_.data(), count);
  }
  waitForInput();
}

void NodeConnection::writeQueue() {
  while (!queue_.empty() && !writingPaused_ && !waitingForRoom_ && socket_.is_open()) {
    std::array<asio::const_buffer, kFramesPerWrite> buffers;
    const std::size_t frames = std::min(queue_.size(), buffers.size());
    for (std::size_t i = 0; i < frames; ++i) {
      buffers[i] = asio::buffer(*queue_[i]);
    }
    buffers[0] += frontWritten_;
    asio::error_code error;
    const std::size_t count = socket_.write_some(buffers, error);
    if (wouldBlock(error)) {
      waitForRoom();
    } else if (error) {
      close("write failed: " + error.message());
    } else {
      dropWritten(count);
    }
  }
}

void NodeConnection::waitForRoom() {
  waitingForRoom_ = true;
  socket_.async_wait(asio::ip::tcp::socket::wait_write,
                     [self = shared_from_this()](const asio::error_code& error) {
                       self->waitingForRoom_ = false;
                       if (!error) {
                         self->writeQueue();
                       }
                     });
}

void NodeConnection::dropWritten(std::size_t count) {
  unsentBytes_ -= count;
  while (count > 0) {
    const std::size_t rest = queue_.front()->size() - frontWritten_;
    if (count < rest) {
      frontWritten_ += count;
      return;
    }
    count -= rest;
    frontWritten_ = 0;
    queue_.pop_front();
  }
}

}  // namespace valtor
