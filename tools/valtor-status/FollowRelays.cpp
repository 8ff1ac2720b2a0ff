#include "valtor-status/FollowRelays.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <sys/socket.h>
#include <thread>
#include <utility>

#include <asio.hpp>

#include "app/util/ErrnoText.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "support/StatusSocket.h"

namespace valtor {
namespace {

constexpr std::string_view kFollow = "follow ";
constexpr std::size_t kLongestID = kLongestStatusRequest - kFollow.size() - 1;  // bytes
// The daemon's longest line has some 8,000: the first 1024 bytes of a body and 255 of a path, each
// of which may stand there as six, and short members.
constexpr std::size_t kLongestLine = 65536;

std::string missedLine(double count) {
  return "{\"missed\":" + std::to_string(static_cast<long long>(count)) + "}";
}

// One connection to the socket. Its handlers keep it alive, until the relay is let go or it ends.
class Reader : public std::enable_shared_from_this<Reader> {
 public:
  Reader(asio::io_context& context, const std::shared_ptr<FollowRelay>& relay,
         std::shared_ptr<const void> place)
      : socket_(context), timer_(context), relay_(relay), place_(std::move(place)) {}
  ~Reader() { endRelay("nobody reads"); }  // too short to need memory
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // The connection has asked already.
  void start(UniqueDescriptor socket) {
    asio::error_code error;
    socket_.assign(asio::local::stream_protocol(), socket.get(), error);
    if (error) {
      endRelay("the daemon cannot be read: " + error.message());
      return;
    }
    static_cast<void>(socket.release());
    watch();
    readOrEnd();
  }

 private:
  // Nobody may want it any more although nothing comes.
  void watch() {
    constexpr std::chrono::milliseconds kInterval{500};
    timer_.expires_after(kInterval);
    timer_.async_wait([self = shared_from_this()](const asio::error_code& error) {
      if (!error && self->relay_.expired()) {
        asio::error_code ignored;
        self->socket_.close(ignored);
      } else if (!error) {
        self->watch();
      }
    });
  }

  // Only the first reason counts.
  void endRelay(const std::string& reason) {
    if (const auto relay = relay_.lock()) {
      relay->end(reason);
    }
  }

  void readOrEnd() {
    try {
      read();
    } catch (const std::exception&) {
      timer_.cancel();  // which held this
    }
  }

  void read() {
    socket_.async_read_some(
        asio::buffer(buffer_),
        [self = shared_from_this()](const asio::error_code& error, std::size_t count) {
          const auto relay = self->relay_.lock();
          if (relay != nullptr && !error && self->takeOrEnd(count, *relay)) {
            self->readOrEnd();
            return;
          }
          self->timer_.cancel();
          self->endRelay("the daemon has ended what it told");
        });
  }

  bool takeOrEnd(std::size_t count, FollowRelay& relay) {
    try {
      return take(count, relay);
    } catch (const std::exception&) {
      relay.end("memory ran out");
      return false;
    }
  }

  bool take(std::size_t count, FollowRelay& relay) {
    text_.append(buffer_.data(), count);
    std::size_t begin = 0;
    for (std::size_t end = text_.find('\n'); end != std::string::npos;
         end = text_.find('\n', begin)) {
      if (!takeLine(text_.substr(begin, end - begin), relay)) {
        return false;
      }
      begin = end + 1;
    }
    text_.erase(0, begin);
    if (text_.size() > kLongestLine) {
      relay.end("the daemon tells what is no line");
      return false;
    }
    return true;
  }

  // What is spliced into a list has to be an object.
  static bool takeLine(const std::string& line, FollowRelay& relay) {
    std::string object = compactJSON(withoutBrokenUtf8(line)).value_or("");
    if (object.empty() || object.front() != '{') {
      relay.end("the daemon tells what is no JSON object");
      return false;
    }
    if (object.rfind("{\"error\"", 0) == 0) {
      relay.end(textOfJSON(memberOfJSON(object, "error")));
      return false;
    }
    if (object.rfind("{\"missed\"", 0) == 0) {
      relay.addMissed(std::strtod(memberOfJSON(object, "missed").c_str(), nullptr));
    } else {
      relay.add(std::move(object));
    }
    return true;
  }

  asio::local::stream_protocol::socket socket_;
  asio::steady_timer timer_;
  const std::weak_ptr<FollowRelay> relay_;
  const std::shared_ptr<const void> place_;
  std::array<char, 16384> buffer_{};
  std::string text_;
};

}  // namespace

FollowRelay::Batch FollowRelay::take(Clock::time_point deadline) {
  const Locked lock(lock_);
  changed_.wait_until(lock_, deadline, [this]() VALTOR_REQUIRES(lock_) {
    return ended_ || missed_ > 0 || !lines_.empty();
  });
  Batch batch;
  if (missed_ > 0) {
    batch.lines.push_back(missedLine(std::exchange(missed_, 0)));
  }
  for (std::size_t taken = 0;
       !lines_.empty() && batch.lines.size() < kBatch && taken < kBatchBytes;) {
    taken += lines_.front().size();
    bytes_ -= lines_.front().size();
    batch.lines.push_back(std::move(lines_.front()));
    lines_.pop_front();
  }
  batch.more = !lines_.empty();
  batch.ended = ended_ && lines_.empty();
  batch.reason = reason_;
  return batch;
}

void FollowRelay::add(std::string line) {
  const Locked lock(lock_);
  bytes_ += line.size();
  lines_.push_back(std::move(line));
  while (lines_.size() > kLines || bytes_ > kBytes) {
    bytes_ -= lines_.front().size();
    lines_.pop_front();
    ++missed_;
  }
  changed_.notify_all();
}

void FollowRelay::addMissed(double count) {
  constexpr double kMost = 1e15;
  const Locked lock(lock_);
  missed_ += count > 0 && count < kMost ? count : 0;
  changed_.notify_all();
}

void FollowRelay::end(const std::string& reason) {
  const Locked lock(lock_);
  if (!ended_) {
    ended_ = true;
    changed_.notify_all();
    reason_ = reason;
  }
}

class FollowRelays::Impl {
 public:
  explicit Impl(std::string path) : socket(std::move(path)), thread([this] { run(); }) {}
  ~Impl() {
    context.stop();
    thread.join();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // A relay for which there was no memory is lost; the others go on.
  void run() {
    while (!context.stopped()) {
      try {
        context.run();
      } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
      }
    }
  }

  const std::string socket;
  std::shared_ptr<const int> places = std::make_shared<const int>(0);  // held by each reader
  Mutex lock;
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> work{context.get_executor()};
  std::thread thread;
};

FollowRelays::FollowRelays(std::string socket) : impl_(std::make_unique<Impl>(std::move(socket))) {}
FollowRelays::~FollowRelays() = default;

std::shared_ptr<FollowRelay> FollowRelays::follow(const std::string& uniqueID) {
  auto relay = std::make_shared<FollowRelay>();
  if (uniqueID.empty() || uniqueID.size() > kLongestID ||
      uniqueID.find_first_of(std::string("\n\0", 2)) != std::string::npos) {
    relay->end("no such router");
    return relay;
  }
  std::shared_ptr<const void> place;
  {
    const Locked lock(impl_->lock);
    if (static_cast<std::size_t>(impl_->places.use_count()) > kMost) {
      relay->end("too many watch messages already");
      return relay;
    }
    place = impl_->places;
  }
  std::string problem;
  UniqueDescriptor socket = connectToStatus(impl_->socket, problem);
  const std::string request = std::string(kFollow) + uniqueID + "\n";
  if (!socket.valid()) {
    relay->end(problem.empty() ? "there is no " + impl_->socket : problem);
  } else if (::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    relay->end("cannot ask at " + impl_->socket + ": " + errnoText(errno));
  } else {
    const auto reader = std::make_shared<Reader>(impl_->context, relay, std::move(place));
    const auto held = std::make_shared<UniqueDescriptor>(std::move(socket));
    asio::post(impl_->context, [reader, held] { reader->start(std::move(*held)); });
  }
  return relay;
}

}  // namespace valtor
