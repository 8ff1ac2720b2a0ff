#include "valtor-status/BusParticipant.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <deque>
#include <exception>
#include <thread>
#include <utility>

#include <asio.hpp>

#include "app/util/Mutex.h"
#include "bus/message/PellInternalMessage.h"
#include "bus/message/PellInternalStreamParser.h"
#include "support/BusRequest.h"
#include "valtor-status/FrameSkimmer.h"
#include "valtor-status/WallClock.h"

namespace valtor {
namespace {

using Clock = std::chrono::steady_clock;
using Tcp = asio::ip::tcp;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kTick{250};
constexpr seconds kReopen{1};          // from one attempt to the next
constexpr seconds kOpen{5};            // for an attempt
constexpr seconds kAsk{2};             // from one question to the next, answered or not
constexpr seconds kQuiet{5};           // without input before a keep-alive
constexpr seconds kSilence{15};        // without input before the link counts as lost
constexpr std::size_t kUnsent{65536};  // bytes that the node does not take before it counts so too

struct Question {
  BusRequest request;
  Clock::time_point asked;
};

bool answers(const Question& question, std::string_view payload) {
  if (payload.find(question.request.identifier) == std::string_view::npos) {
    return false;
  }
  auto text = std::make_unique<char[]>(payload.size() + 1);
  std::memcpy(text.get(), payload.data(), payload.size());
  return isAnswerTo(question.request, PellInternalMessage(std::move(text)));
}

}  // namespace

class BusParticipant::Impl {
 public:
  explicit Impl(BusPlace place) : place_(std::move(place)) {
    view_.since = wallSeconds();
    tick();
    thread_ = std::thread([this] { run(); });
  }

  ~Impl() {
    context_.stop();
    thread_.join();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  View view() const {
    const Locked lock(lock_);
    View view = view_;
    if (waitsSince_) {
      const std::chrono::duration<double, std::milli> wait = Clock::now() - *waitsSince_;
      view.daemonDelayMs = std::max(wait.count(), view.daemonDelayMs.value_or(0));
      // A first answer that is not late is no news.
      if (!view.daemonAnsweredAt && wait < kAsk) {
        view.daemonDelayMs.reset();
      }
    }
    return view;
  }

 private:
  void run() {
    for (bool broken = false;;) {
      try {
        if (std::exchange(broken, false)) {
          lose("memory ran out");
          tick();
        }
        context_.run();
        return;
      } catch (const std::exception&) {
        broken = true;
        std::this_thread::sleep_for(kTick);
      }
    }
  }

  // What happens by the clock.
  void tick() {
    const auto now = Clock::now();
    if (state_ == State::Down && now >= attempted_ + kReopen) {
      attempt();
    } else if (state_ == State::Opening && now >= attempted_ + kOpen) {
      lose("no answer from " + where());
    } else if (state_ == State::Up) {
      if (now >= heard_ + kSilence) {
        lose(where() + " has said nothing for 15 s");
      } else if (now >= std::max(heard_, kept_) + kQuiet) {
        kept_ = now;
        send(makeRequest(MessageKind::SET, "", "{}"));
      }
      ask(now);
    }
    timer_.expires_after(kTick);
    timer_.async_wait([this](const asio::error_code& error) {
      if (!error) {
        tick();
      }
    });
  }

  void ask(Clock::time_point now) {
    if (state_ != State::Up || now < asked_ + kAsk) {
      return;
    }
    asked_ = now;
    questions_.push_back({readinessQuestion(kDaemonConnID), now});
    constexpr std::size_t kMost = 8;
    if (questions_.size() > kMost) {
      questions_.erase(questions_.begin() + 1);  // the first says since when nobody answers
    }
    send(questions_.back().request);
    if (state_ != State::Up) {
      return;  // lost meanwhile, and the questions with it
    }
    const Locked lock(lock_);
    waitsSince_ = questions_.front().asked;
  }

  void attempt() {
    attempted_ = Clock::now();
    state_ = State::Opening;
    resolver_.async_resolve(
        place_.host, std::to_string(place_.port),
        [this, link = link_](const asio::error_code& error,
                             const Tcp::resolver::results_type& found) {
          if (link != link_) {
            return;
          }
          if (error) {
            lose("cannot find host \"" + place_.host + "\": " + error.message());
            return;
          }
          asio::async_connect(socket_, found,
                              [this, link](const asio::error_code& result, const Tcp::endpoint&) {
                                if (link == link_) {
                                  opened(result);
                                }
                              });
        });
  }

  void opened(const asio::error_code& error) {
    if (error) {
      lose("cannot connect to " + where() + ": " + error.message());
      return;
    }
    state_ = State::Up;
    heard_ = kept_ = Clock::now();
    asked_ = heard_ - kAsk;
    {
      const Locked lock(lock_);
      view_.up = true;
      view_.since = wallSeconds();
      view_.problem.clear();
    }
    readOn();
    send(loginRequest(place_.name, place_.connID));
    send(subscriptionRequest({"*"}));
    ask(heard_);
  }

  void lose(const std::string& problem) {
    ++link_;  // what is under way belongs to the old one
    resolver_.cancel();
    asio::error_code ignored;
    socket_.close(ignored);
    skimmer_.reset();
    unsent_.clear();
    writing_ = false;
    questions_.clear();
    const bool was = std::exchange(state_, State::Down) == State::Up;
    const Locked lock(lock_);
    view_.since = was ? wallSeconds() : view_.since;
    view_.up = false;
    view_.problem = problem;
    view_.daemonDelayMs.reset();
    waitsSince_.reset();
  }

  void readOn() {
    socket_.async_read_some(
        asio::buffer(buffer_),
        [this, link = link_](const asio::error_code& error, std::size_t count) {
          if (link != link_) {
            return;
          }
          if (error) {
            lose(where() + (error == asio::error::eof ? " hung up" : ": " + error.message()));
            return;
          }
          heard_ = Clock::now();
          skimmer_.take(buffer_.data(), count);
          readOn();
        });
  }

  void look(std::string_view payload, bool whole) {
    const auto found =
        std::find_if(questions_.begin(), questions_.end(),
                     [&](const Question& question) { return whole && answers(question, payload); });
    const Locked lock(lock_);
    ++view_.messages;
    if (found != questions_.end()) {
      const std::chrono::duration<double, std::milli> trip = Clock::now() - found->asked;
      view_.daemonDelayMs = trip.count();
      view_.daemonAnsweredAt = wallSeconds();
      waitsSince_.reset();
      questions_.clear();
    }
  }

  void send(const BusRequest& request) {
    unsent_ += frame(payloadOf(request, place_.connID));
    if (unsent_.size() > kUnsent) {
      lose(where() + " takes no more data");
    } else if (!writing_) {
      write();
    }
  }

  void write() {
    writing_ = true;
    const auto bytes = std::make_shared<const std::string>(std::exchange(unsent_, ""));
    asio::async_write(
        socket_, asio::buffer(*bytes),
        [this, bytes, link = link_](const asio::error_code& error, std::size_t /*count*/) {
          if (link != link_) {
            return;
          }
          writing_ = false;
          if (error) {
            lose(where() + ": " + error.message());
          } else if (!unsent_.empty()) {
            write();
          }
        });
  }

  std::string where() const { return place_.host + ":" + std::to_string(place_.port); }

  enum class State { Down, Opening, Up };

  const BusPlace place_;
  asio::io_context context_{1};
  Tcp::resolver resolver_{context_};
  Tcp::socket socket_{context_};
  asio::steady_timer timer_{context_};
  std::array<char, 65536> buffer_{};
  FrameSkimmer skimmer_{[this](std::string_view payload, bool whole) { look(payload, whole); }};
  State state_ = State::Down;
  unsigned link_ = 0;  // counts connections
  Clock::time_point attempted_;
  Clock::time_point heard_;
  Clock::time_point kept_;          // the last keep-alive
  Clock::time_point asked_;         // the last question
  std::deque<Question> questions_;  // without an answer
  std::string unsent_;
  bool writing_ = false;

  mutable Mutex lock_;
  View view_ VALTOR_GUARDED_BY(lock_);
  std::optional<Clock::time_point> waitsSince_ VALTOR_GUARDED_BY(lock_);
  std::thread thread_;  // the last, since it uses the others
};

BusParticipant::BusParticipant(BusPlace place) : impl_(std::make_unique<Impl>(std::move(place))) {}
BusParticipant::~BusParticipant() = default;
BusParticipant::View BusParticipant::view() const { return impl_->view(); }

}  // namespace valtor
