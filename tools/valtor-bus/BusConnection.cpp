#include "valtor-bus/BusConnection.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <deque>
#include <utility>

#include <asio.hpp>

#include "bus/PellInternalStreamParser.h"
#include "valtor-bus/CommandFailure.h"
#include "valtor-bus/JSONText.h"
#include "valtor-bus/Output.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;
using Tcp = asio::ip::tcp;

constexpr std::chrono::seconds kOpenTime{5};
constexpr std::chrono::seconds kSendTime{10};
constexpr std::chrono::seconds kFinishTime{2};
constexpr std::chrono::seconds kSilenceBeforeProbe{5};
constexpr std::chrono::seconds kSilenceBeforeLoss{20};
constexpr std::chrono::seconds kLongestWait{1};  // between two looks at the silence
constexpr std::size_t kReadSize = 65536;

std::string loginBody(const BusSettings& settings) {
  return R"({"param":{"login":{"name":)" + quotedJSON(settings.name) +
         ",\"connID\":" + std::to_string(settings.connID) + ",\"version\":1}}}";
}

std::string subscriptionBody(const std::vector<std::string>& paths) {
  std::string list;
  for (const std::string& path : paths) {
    list += (list.empty() ? "" : ",") + ("{\"path\":" + quotedJSON(path)) + ",\"receiveAll\":true}";
  }
  return R"({"param":{"subscribeList":[)" + list + "]}}";
}

}  // namespace

class BusConnection::Impl {
 public:
  explicit Impl(BusSettings bus) : settings(std::move(bus)), signals_(context_, SIGINT, SIGTERM) {
    parser_.setMessageCallback(
        [this](std::vector<PellInternalMessage> messages) { take(std::move(messages)); });
    signals_.async_wait([this](const asio::error_code& error, int /*signal*/) {
      interrupted = interrupted || !error;
    });
  }

  void open() {
    close();
    const Clock::time_point deadline = Clock::now() + kOpenTime;
    Tcp::resolver resolver(context_);
    Tcp::resolver::results_type found;
    asio::error_code error = await(deadline, Interrupt::Ends, [&](auto done) {
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
      throw LinkFailure("cannot find host \"" + printable(settings.host) + "\": " + text(error),
                        "Check --host: a name that resolves here, or an IPv4 address.");
    }
    error = await(deadline, Interrupt::Ends, [&](auto done) {
      asio::async_connect(
          socket_, found,
          [done](const asio::error_code& result, const Tcp::endpoint&) { done(result); });
    });
    if (error) {
      close();
      throw LinkFailure("cannot connect to " + where() + ": " + text(error),
                        "Is a message node listening there? Check --host and --port.");
    }
    asio::error_code ignored;
    socket_.set_option(Tcp::no_delay(true), ignored);
    isOpen = true;
    lastInput_ = lastProbe_ = Clock::now();
    readOn();
    send(makeRequest(MessageKind::SET, "system.connection", loginBody(settings)));
    if (!subscriptions.empty()) {
      send(makeRequest(MessageKind::SET, "system.connection", subscriptionBody(subscriptions)));
    }
  }

  void send(const BusRequest& request) { sendPayload(payloadOf(request, settings.connID)); }

  void sendPayload(const std::string& payload) {
    if (!isOpen) {
      throw LinkFailure("not connected to " + where());
    }
    const auto bytes = std::make_shared<const std::string>(frame(payload));
    if (payload.size() > static_cast<std::size_t>(PellInternalStreamParser::kMaxPayload)) {
      throw CommandFailure(
          ExitCode::Refused,
          "a message of " + std::to_string(payload.size()) + " bytes is longer than the " +
              std::to_string(PellInternalStreamParser::kMaxPayload) + " that nodes take");
    }
    // An interrupt waits for the rest of the frame.
    const asio::error_code error =
        await(Clock::now() + kSendTime, Interrupt::Ignored, [&](auto done) {
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
    // Read only when everything is handed out: whoever is slow slows the node instead of filling
    // the memory.
    for (bool polled = false; received_.empty() && !interrupted; polled = true) {
      if (!loss_.empty()) {
        throwLoss();
      }
      const Clock::time_point now = Clock::now();
      if (now >= deadline && polled) {
        return std::nullopt;
      }
      if (now >= deadline) {
        context_.restart();
        context_.poll_one();
      } else {
        watchSilence(now);
        runOnce(std::min(deadline, now + kLongestWait));
      }
    }
    if (interrupted) {
      return std::nullopt;
    }
    PellInternalMessage message = std::move(received_.front());
    received_.pop_front();
    return message;
  }

  void pause(Clock::time_point until) {
    while (!interrupted && Clock::now() < until) {
      runOnce(until);
    }
  }

  void finish() {
    asio::error_code ignored;
    socket_.shutdown(Tcp::socket::shutdown_send, ignored);
    const Clock::time_point deadline = Clock::now() + kFinishTime;
    while (isOpen && loss_.empty() && !interrupted && Clock::now() < deadline) {
      runOnce(deadline);
    }
    close();
  }

  std::string where() const { return settings.host + ":" + std::to_string(settings.port); }

  const BusSettings settings;
  std::vector<std::string> subscriptions;
  bool isOpen = false;
  bool interrupted = false;

 private:
  enum class Interrupt { Ends, Ignored };

  static std::string text(const asio::error_code& error) {
    return error == asio::error::timed_out
               ? "no answer within " + std::to_string(kOpenTime.count()) + " s"
               : error.message();
  }

  void runOnce(Clock::time_point until) {
    context_.restart();
    context_.run_one_until(until);
  }

  // Starts an operation and runs the loop, reading included, until it ends. The operation calls
  // done(result); that is false when nobody waits any more. "Timed out" at the deadline, and when
  // an interrupt ends it.
  template <class Start>
  asio::error_code await(Clock::time_point deadline, Interrupt interrupt, Start start) {
    struct Waiting {
      bool present = true;
      std::optional<asio::error_code> result;
    };
    const auto waiting = std::make_shared<Waiting>();
    start([waiting](const asio::error_code& result) {
      waiting->result = result;
      return waiting->present;
    });
    const auto mayGoOn = [&] { return interrupt == Interrupt::Ignored || !interrupted; };
    while (!waiting->result && mayGoOn() && Clock::now() < deadline) {
      runOnce(deadline);
    }
    waiting->present = false;
    return waiting->result.value_or(asio::error::timed_out);
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
          lastInput_ = Clock::now();
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
      const bool ownProbe =
          message.getKind() == MessageKind::ACK && message.getUniqueId() == probe_.identifier;
      if (!ownProbe) {
        received_.push_back(std::move(message));
      }
    }
  }

  void watchSilence(Clock::time_point now) {
    if (!isOpen) {
      throw LinkFailure("not connected to " + where());
    }
    if (now - lastInput_ >= kSilenceBeforeLoss) {
      lose("nothing came for " + std::to_string(kSilenceBeforeLoss.count()) +
           " s, not even an answer to a keep-alive");
      throwLoss();
    }
    if (now - std::max(lastInput_, lastProbe_) >= kSilenceBeforeProbe) {
      lastProbe_ = now;
      probe_ = makeRequest(MessageKind::SET, "", "{}");
      send(probe_);
    }
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
    isOpen = false;
  }

  asio::io_context context_{1};
  asio::signal_set signals_;
  Tcp::socket socket_{context_};
  std::array<char, kReadSize> buffer_{};
  PellInternalStreamParser parser_;
  std::deque<PellInternalMessage> received_;
  BusRequest probe_;  // the latest keep-alive
  Clock::time_point lastInput_;
  Clock::time_point lastProbe_;
  std::string loss_;   // why the link ended; empty while it stands
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
std::string BusConnection::where() const { return impl_->where(); }
void BusConnection::send(const BusRequest& request) { impl_->send(request); }
void BusConnection::sendPayload(const std::string& payload) { impl_->sendPayload(payload); }
std::optional<PellInternalMessage> BusConnection::receive(Clock::time_point deadline) {
  return impl_->receive(deadline);
}
void BusConnection::pause(Clock::time_point until) { impl_->pause(until); }
void BusConnection::finish() { impl_->finish(); }
bool BusConnection::interrupted() const { return impl_->interrupted; }

std::chrono::microseconds toDuration(double seconds) {
  constexpr double kMost = 1e9;
  const double limited = seconds >= 0 && seconds < kMost ? seconds : kMost;
  return std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::duration<double>(limited));
}

}  // namespace valtor
