#include "valtor-status/StatusWatch.h"

#include <exception>
#include <utility>

#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "support/StatusSocket.h"

namespace valtor {
namespace {

constexpr std::chrono::milliseconds kInterval{500};
constexpr std::chrono::milliseconds kPatience{1000};
constexpr std::size_t kLongest = 4194304;  // bytes; five thousand routers

}  // namespace

StatusWatch::StatusWatch(std::string socket, LiveState& state,
                         std::function<BusParticipant::View()> bus)
    : socket_(std::move(socket)), state_(state), bus_(std::move(bus)), thread_([this] { run(); }) {}

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
    try {
      look();
    } catch (const std::exception& error) {
      state_.silent("the answer cannot be taken: " + std::string(error.what()), bus_());
    }
    const Locked lock(lock_);
    if (changed_.wait_until(lock_, next, [this]() VALTOR_REQUIRES(lock_) { return ends_; })) {
      return;
    }
  }
}

void StatusWatch::look() {
  const StatusAnswer answer = askForStatus(socket_, kPatience, kLongest);
  if (answer.text.empty()) {
    state_.silent(answer.problem.empty() ? "there is no " + socket_ : answer.problem, bus_());
    return;
  }
  std::string document = compactJSON(withoutBrokenUtf8(answer.text)).value_or("");
  if (document.empty() || document.front() != '{') {
    state_.silent("what " + socket_ + " says is no JSON object", bus_());
    return;
  }
  state_.answered(std::move(document), bus_());
}

}  // namespace valtor
