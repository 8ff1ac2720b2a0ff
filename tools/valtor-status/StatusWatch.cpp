#include "valtor-status/StatusWatch.h"

#include <exception>
#include <utility>

#include "app/util/StatusLimits.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "support/StatusSocket.h"

namespace valtor {
namespace {

constexpr std::chrono::milliseconds kInterval{500};
constexpr std::chrono::milliseconds kPatience{1000};

}  // namespace

StatusWatch::StatusWatch(std::string socket, LiveState& state,
                         std::function<BusParticipant::View()> bus,
                         std::function<void(const std::string&)> say)
    : socket_(std::move(socket)),
      state_(state),
      bus_(std::move(bus)),
      say_(std::move(say)),
      thread_([this] { run(); }) {}

StatusWatch::~StatusWatch() {
  {
    const Locked lock(lock_);
    ends_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

void StatusWatch::run() {
  for (;;) {
    const auto next = std::chrono::steady_clock::now() + kInterval;
    lookAndTell();
    const Locked lock(lock_);
    if (changed_.wait_until(lock_, next, [this]() VALTOR_REQUIRES(lock_) { return ends_; })) {
      return;
    }
  }
}

// Nothing is too little to go on with: the next look may find more memory.
void StatusWatch::lookAndTell() {
  try {
    try {
      look();
    } catch (const std::exception& error) {
      silent("the answer cannot be taken: " + std::string(error.what()));
    }
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
  }
}

void StatusWatch::look() {
  StatusAnswer answer = askForStatus(socket_, kPatience, kLongestStatus);
  if (answer.text.empty()) {
    silent(answer.problem.empty() ? "there is no " + socket_ : answer.problem);
    return;
  }
  std::string document = compactJSON(withoutBrokenUtf8(answer.text)).value_or("");
  answer = {};  // megabytes, where there are thousands of routers
  const BusParticipant::View view = bus_();
  if (!state_.answered(std::move(document), view)) {
    silent("what " + socket_ + " says is no JSON object of a daemon");
    return;
  }
  if (!answering_.value_or(false)) {
    say_("the daemon answers");
  }
  answering_ = true;
  tellBus(view);
}

void StatusWatch::silent(const std::string& problem) {
  const BusParticipant::View view = bus_();
  state_.silent(problem, view);
  if (answering_.value_or(true)) {
    say_("the daemon does not answer: " + problem);
  }
  answering_ = false;
  tellBus(view);
}

void StatusWatch::tellBus(const BusParticipant::View& view) {
  if (view.up && !busIsUp_.value_or(false)) {
    say_("on the controller's bus");
  } else if (!view.up && !view.problem.empty() && busIsUp_.value_or(true)) {
    say_("not on the controller's bus: " + view.problem);
  } else {
    return;
  }
  busIsUp_ = view.up;
}

}  // namespace valtor
