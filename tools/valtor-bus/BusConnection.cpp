#include "valtor-bus/BusConnection.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <deque>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <utility>

#include <asio.hpp>

#include "bus/message/PellInternalStreamParser.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "valtor-bus/Output.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;
using Tcp = asio::ip::tcp;

constexpr std::chrono::seconds kLongestWait{1};  // between two looks at what the node has taken
constexpr std::size_t kReadSize = 65536;

}  // namespace

class BusConnection::Impl {
 public:
  explicit Impl(BusSettings bus) : settings(std::move(bus)) {
    parser_.setMessageCallback(
        [this](std::vector<PellInternalMessage> messages) { take(std::move(messages)); });
  }

  void open() {
    close();
    catchSignals();
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = std::min(start + settings.times.open, limit);
    const auto why = [&](const asio::error_code& error) {
      return error == asio::error::timed_out ? "no answer within " + secondsText(deadline - start)
                                             : error.message();
    };
    Tcp::resolver resolver(context_);
    Tcp::resolver::results_type found;
    asio::error_code error = await(deadline - start, [&](auto done) {
      resolver.async_resolve(settings.host, std::to_string(settings.port),
                             [done, &found](const asio::error_code& result,
                                            const Tcp::resolver::results_type& endpoints) {
                               // Late, after the deadline, "found" is gone.
                               if (done(result)) {
                                 found = endpoints;
                               }
                             });
    });
    if (error) {
      throw LinkFailure("cannot find host \"" + printable(settings.host) + "\": " + why(error),
                        "Check --host: a name that resolves here, or an IPv4 address.");
    }
    error = await(deadline - Clock::now(), [&](auto done) {
      asio::async_connect(
          socket_, found,
          [done](const asio::error_code& result, const Tcp::endpoint&) { done(result); });
    });
    if (error) {
      close();
      const std::string text = "cannot connect to " + where() + ": " + why(error);
      const char* hint = "Is a message node listening there? Check --host and --port.";
      if (error == asio::error::connection_refused) {
        throw LinkRefused(text, hint);
      }
      throw LinkFailure(text, hint);
    }
    asio::error_code ignored;
    socket_.set_option(Tcp::no_delay(true), ignored);
    isOpen = true;
    quietSince_ = Clock::now();
    readOn();
    send(loginRequest(settings.name, settings.connID));
    if (!subscriptions.empty()) {
      send(subscriptionRequest(subscriptions));
    }
  }

  void send(const BusRequest& request) { sendPayload(payloadOf(request, settings.connID)); }

  void sendPayload(const std::string& payload) {
    requireOpen();
    if (payload.size() > static_cast<std::size_t>(PellInternalStreamParser::kMaxPayload)) {
      throw CommandFailure(
          ExitCode::Refused,
          "a message of " + std::to_string(payload.size()) + " bytes is longer than the " +
              std::to_string(PellInternalStreamParser::kMaxPayload) + " that nodes take");
    }
    const auto bytes = std::make_shared<const std::string>(frame(payload));
    const asio::error_code error = await(settings.times.send, [&](auto done) {
      asio::async_write(
          socket_, asio::buffer(*bytes),
          [done, bytes](const asio::error_code& result, std::size_t) { done(result); });
    });
    if (error) {
      lose(error == asio::error::timed_out ? "it takes no more data" : error.message());
      throwLoss();
    }
  }

  std::optional<PellInternalMessage> receive(Clock::time_point deadline) {
    requireOpen();
    for (;;) {
      // What has come is looked at before the clock: whoever was held up finds no silence in it.
      // Read only when everything is handed out: whoever is slow slows the node instead of filling
      // the memory.
      context_.restart();
      while (received_.empty() && !interrupted && context_.poll_one() > 0) {
      }
      if (interrupted) {
        throw Interrupted();
      }
      if (!received_.empty()) {
        PellInternalMessage message = std::move(received_.front());
        received_.pop_front();
        return message;
      }
      if (!loss_.empty()) {
        throwLoss();
      }
      if (Clock::now() >= deadline) {
        return std::nullopt;
      }
      watchSilence();
      runOnce(std::min(deadline, quietSince_ + settings.times.quiet));
    }
  }

  void dropReceived() { received_.clear(); }

  void pause(Clock::time_point until) {
    while (!interrupted && Clock::now() < until) {
      runOnce(until);
    }
  }

  void awaitInput() {
    probe([this] { return hasInput_; });
  }

  void finish() {
    try {
      probe([this] { return probes_.empty(); });
    } catch (const LinkFailure& failure) {
      throw LinkFailure(failure.what(), "What was sent may not have arrived.");
    }
    close();
  }

  std::optional<Clock::duration> roundTrip(Clock::time_point deadline) {
    requireOpen();
    const Clock::time_point start = Clock::now();
    const std::string identifier = sendProbe();
    const auto isAnswered = [&] {
      return std::find(probes_.begin(), probes_.end(), identifier) == probes_.end();
    };
    runUntil(deadline - start, [&] { return isAnswered() || !loss_.empty(); });
    dropReceived();
    if (isAnswered()) {
      return Clock::now() - start;
    }
    if (!loss_.empty()) {
      throwLoss();
    }
    return std::nullopt;
  }

  std::string where() const { return settings.host + ":" + std::to_string(settings.port); }

  const BusSettings settings;
  std::vector<std::string> subscriptions;
  Clock::time_point limit = Clock::time_point::max();
  bool isOpen = false;
  bool interrupted = false;

 private:
  void requireOpen() const {
    if (!isOpen) {
      throw LinkFailure("not connected to " + where());
    }
  }

  void catchSignals() {
    if (!signals_) {
      signals_.emplace(context_, SIGINT, SIGTERM);
      signals_->async_wait([this](const asio::error_code& error, int /*signal*/) {
        interrupted = interrupted || !error;
      });
    }
  }

  void runOnce(Clock::time_point until) {
    context_.restart();
    context_.run_one_until(until);
  }

  // How much of what was sent the node's system has not taken yet, in bytes.
  int untaken() {
    int count = 0;
    ioctl(socket_.native_handle(), SIOCOUTQ, &count);
    return count;
  }

  // Runs the loop, reading included, until the condition holds; false when the time is over, which
  // begins anew whenever the node's system takes data. An interrupt closes the connection: half a
  // frame may be out.
  template <class Condition>
  bool runUntil(Clock::duration time, Condition condition) {
    Clock::time_point deadline = Clock::now() + time;
    int before = untaken();
    while (!condition()) {
      if (interrupted) {
        close();
        throw Interrupted();
      }
      const Clock::time_point now = Clock::now();
      if (const int left = untaken(); left != before) {
        before = left;
        deadline = now + time;
      }
      if (now >= deadline || now >= limit) {
        return false;
      }
      runOnce(std::min({deadline, limit, now + kLongestWait}));
    }
    return true;
  }

  // Starts an operation and waits until it ends. The operation calls done(result); that is false
  // when nobody waits any more.
  template <class Start>
  asio::error_code await(Clock::duration time, Start start) {
    const auto result = std::make_shared<std::optional<asio::error_code>>();
    start([weak = std::weak_ptr(result)](const asio::error_code& error) {
      const auto waiting = weak.lock();
      if (waiting) {
        *waiting = error;
      }
      return waiting != nullptr;
    });
    return runUntil(time, [&] { return result->has_value(); })
               ? **result
               : asio::error_code(asio::error::timed_out);
  }

  void readOn() {
    socket_.async_read_some(
        asio::buffer(buffer_), [this, link = link_](const asio::error_code& error, std::size_t n) {
          if (link != link_) {
            return;
          }
          if (error) {
            lose(error == asio::error::eof ? "the node hung up" : error.message());
            return;
          }
          quietSince_ = Clock::now();
          unansweredSince_.reset();
          hasInput_ = true;
          parser_.parse(buffer_.data(), n);
          // The text of a message ends there, also for --raw and recordings.
          const auto end = buffer_.begin() + static_cast<std::ptrdiff_t>(n);
          if (!nulReported_ && std::find(buffer_.begin(), end, '\0') != end) {
            nulReported_ = true;
            say("a message holds a NUL byte; what stands behind it is left out");
          }
          readOn();
        });
  }

  void take(std::vector<PellInternalMessage> messages) {
    for (PellInternalMessage& message : messages) {
      const auto probe = message.getKind() == MessageKind::ACK
                             ? std::find(probes_.begin(), probes_.end(), message.getUniqueId())
                             : probes_.end();
      if (probe != probes_.end()) {
        probes_.erase(probes_.begin(), probe + 1);
      } else {
        received_.push_back(std::move(message));
      }
    }
  }

  std::string sendProbe() {
    quietSince_ = Clock::now();
    unansweredSince_ = unansweredSince_.value_or(quietSince_);
    const BusRequest request = makeRequest(MessageKind::SET, "", "{}");
    probes_.push_back(request.identifier);
    send(request);
    return request.identifier;
  }

  // Sends a keep-alive and waits until the condition holds.
  template <class Condition>
  void probe(Condition condition) {
    const Clock::time_point start = Clock::now();
    sendProbe();
    if (!runUntil(settings.times.confirm, [&] { return condition() || !loss_.empty(); })) {
      loseSilent(Clock::now() - start);
    }
    if (!condition()) {
      throwLoss();
    }
  }

  void watchSilence() {
    const Clock::time_point now = Clock::now();
    if (unansweredSince_ && now - *unansweredSince_ >= settings.times.silence) {
      loseSilent(settings.times.silence);
      throwLoss();
    }
    if (now - quietSince_ >= settings.times.quiet) {
      sendProbe();
    }
  }

  void loseSilent(Clock::duration time) {
    lose("no answer to a keep-alive within " + secondsText(time));
  }

  void lose(const std::string& reason) {
    if (loss_.empty()) {
      loss_ = reason;
    }
  }

  [[noreturn]] void throwLoss() {
    const std::string reason = std::exchange(loss_, "");
    close();
    throw LinkFailure("connection to " + where() + " lost: " + reason);
  }

  void close() {
    ++link_;
    asio::error_code ignored;
    socket_.close(ignored);
    parser_.reset();
    received_.clear();
    loss_.clear();
    probes_.clear();
    unansweredSince_.reset();
    hasInput_ = false;
    isOpen = false;
  }

  asio::io_context context_{1};
  std::optional<asio::signal_set> signals_;
  Tcp::socket socket_{context_};
  std::array<char, kReadSize> buffer_{};
  PellInternalStreamParser parser_;
  std::deque<PellInternalMessage> received_;
  std::deque<std::string> probes_;  // the identifiers of keep-alives without an answer yet
  bool hasInput_ = false;           // on this connection
  Clock::time_point quietSince_;    // the last input or keep-alive
  std::optional<Clock::time_point> unansweredSince_;  // the first keep-alive after the last input
  std::string loss_;                                  // why the link ended; empty while it stands
  unsigned link_ = 0;  // counts connections, so that a late event of an old one is told apart
  bool nulReported_ = false;
};

BusConnection::BusConnection(BusSettings settings)
    : impl_(std::make_unique<Impl>(std::move(settings))) {}
BusConnection::~BusConnection() = default;

void BusConnection::setSubscriptions(std::vector<std::string> paths) {
  impl_->subscriptions = std::move(paths);
}
void BusConnection::open() { impl_->open(); }
bool BusConnection::isOpen() const { return impl_->isOpen; }
void BusConnection::setDeadline(Clock::time_point deadline) { impl_->limit = deadline; }
const BusSettings& BusConnection::settings() const { return impl_->settings; }
std::string BusConnection::where() const { return impl_->where(); }
void BusConnection::send(const BusRequest& request) { impl_->send(request); }
void BusConnection::sendPayload(const std::string& payload) { impl_->sendPayload(payload); }
std::optional<PellInternalMessage> BusConnection::receive(Clock::time_point deadline) {
  return impl_->receive(deadline);
}
void BusConnection::dropReceived() { impl_->dropReceived(); }
void BusConnection::pause(Clock::time_point until) { impl_->pause(until); }
void BusConnection::awaitInput() { impl_->awaitInput(); }
void BusConnection::finish() { impl_->finish(); }
std::optional<Clock::duration> BusConnection::roundTrip(Clock::time_point deadline) {
  return impl_->roundTrip(deadline);
}
bool BusConnection::interrupted() const { return impl_->interrupted; }

std::string secondsText(std::chrono::duration<double> time) {
  std::array<char, 40> text{};
  std::snprintf(text.data(), text.size(), "%.3g s", time.count());
  return text.data();
}

std::chrono::microseconds toDuration(double seconds) {
  constexpr double kMost = 1e9;
  const double limited = seconds < kMost ? std::max(seconds, 0.0) : kMost;
  return std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::duration<double>(limited));
}

}  // namespace valtor
