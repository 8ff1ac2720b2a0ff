#include "valtor-bus/Exchange.h"

#include <algorithm>
#include <utility>

#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;

std::string described(const BusRequest& request) {
  return std::string(kindName(request.kind)) + " on \"" + request.path + "\"";
}

// "connection 101: 404 Not Found", and what the refusal says beyond its status.
std::string refusalOf(const PellInternalMessage& answer) {
  const std::string details = memberOfJSON(bodyOf(answer), "details");
  return "connection " + std::to_string(answer.header.sourceConnID) + ": " + statusOf(answer) +
         (details.empty() ? "" : ", details " + printable(details));
}

// Waits until the daemon says that it is ready, if the request is one that changes something and is
// not meant for somebody else; no longer than until the time.
void awaitDaemon(BusConnection& connection, const BusRequest& request, Clock::time_point until) {
  const bool changes = request.kind == MessageKind::SET || request.kind == MessageKind::UPDATE ||
                       request.kind == MessageKind::DEL || request.kind == MessageKind::CMD;
  const bool isForOthers = request.destination != 0 && request.destination != kDaemonConnID &&
                           request.destination != kDaemonOnRouterConnID;
  if (!changes || isForOthers) {
    return;
  }
  ReadinessQuestions questions;
  Repetition repetition;
  while (Clock::now() < until) {
    if (Clock::now() >= repetition.due()) {
      repetition.next();
      // On the controller's bus the first is answered at once, and nobody is asked in vain.
      if (!questions.empty()) {
        questions.ask(connection, kDaemonOnRouterConnID);
      }
      questions.ask(connection);
    }
    const auto message = connection.receive(std::min(until, repetition.due()));
    if (message && questions.tripOf(*message)) {
      return;
    }
  }
}

}  // namespace

void Repetition::next() {
  constexpr std::chrono::milliseconds kLongest{1000};
  due_ = Clock::now() + interval_;
  interval_ = std::min(interval_ * 2, kLongest);
}

void ReadinessQuestions::ask(BusConnection& connection, int32_t daemon) {
  asked_.emplace_back(readinessQuestion(daemon), Clock::now());
  connection.send(asked_.back().first);
}

std::optional<Clock::duration> ReadinessQuestions::tripOf(
    const PellInternalMessage& message) const {
  for (const auto& [question, time] : asked_) {
    if (isAnswerTo(question, message)) {
      return Clock::now() - time;
    }
  }
  return std::nullopt;
}

std::optional<Clock::duration> askDaemon(BusConnection& connection, Clock::time_point deadline,
                                         bool again) {
  ReadinessQuestions questions;
  Repetition repetition;
  do {
    if (questions.empty() || (again && Clock::now() >= repetition.due())) {
      repetition.next();
      questions.ask(connection);
    }
    const auto message =
        connection.receive(again ? std::min(deadline, repetition.due()) : deadline);
    if (message) {
      if (const auto trip = questions.tripOf(*message)) {
        return trip;
      }
    }
  } while (Clock::now() < deadline);
  return std::nullopt;
}

void openBefore(BusConnection& connection, Clock::time_point deadline) {
  constexpr std::chrono::milliseconds kPause{100};
  connection.setDeadline(deadline);
  for (;;) {
    try {
      connection.open();
      return;
    } catch (const LinkRefused&) {
      if (Clock::now() + kPause >= deadline) {
        throw;
      }
    }
    connection.pause(Clock::now() + kPause);
    if (connection.interrupted()) {
      throw Interrupted();
    }
  }
}

void sendOnce(BusConnection& connection, const BusRequest& request, double seconds) {
  const auto time = toDuration(seconds);
  const Clock::time_point start = Clock::now();
  openBefore(connection, start + time);
  awaitDaemon(connection, request, start + time / 2);
  connection.send(request);
  connection.finish();
}

Exchange::Exchange(BusConnection& connection, BusRequest request, double seconds)
    : connection_(connection),
      requests_({std::move(request)}),
      seconds_(seconds),
      end_(Clock::now() + toDuration(seconds)) {
  openBefore(connection_, end_);
  awaitDaemon(connection_, this->request(), end_ - toDuration(seconds) / 2);
  repetition_.next();
  connection_.send(this->request());
}

bool Exchange::repeats() const {
  return request().kind == MessageKind::GET && !request().keepsIdentifier && !enough_ &&
         refusals_.empty();
}

bool Exchange::takes(const PellInternalMessage& message) {
  const auto found = std::find_if(requests_.begin(), requests_.end(),
                                  [&](const BusRequest& one) { return isAnswerTo(one, message); });
  if (found == requests_.end()) {
    return false;
  }
  const auto number = static_cast<std::size_t>(found - requests_.begin());
  return answers_.emplace(message.header.sourceConnID, number).first->second == number;
}

std::optional<PellInternalMessage> Exchange::next() {
  try {
    do {
      if (repeats() && Clock::now() >= repetition_.due()) {
        repetition_.next();
        connection_.send(requests_.emplace_back(repeated(request())));
      }
      std::optional<PellInternalMessage> message =
          connection_.receive(repeats() ? std::min(end_, repetition_.due()) : end_);
      if (message && takes(*message)) {
        if (isRefusal(*message)) {
          refusals_ += (refusals_.empty() ? "" : "; ") + refusalOf(*message);
          bound(connection_.settings().times.afterRefusal);
        }
        answered_ = answered_ || !isRefusal(*message);
        return message;
      }
    } while (Clock::now() < end_);
  } catch (const LinkFailure&) {
    if (!enough_) {
      throw;
    }
  }
  return std::nullopt;
}

void Exchange::hasEnough() {
  enough_ = true;
  bound(connection_.settings().times.others);
}

void Exchange::bound(Clock::duration time) { end_ = std::min(end_, Clock::now() + time); }

void Exchange::requireAnswer(const std::string& hint) const {
  if (!answered_) {
    requireNoRefusal();
    throwNoAnswer(connection_, request(), seconds_, hint);
  }
}

void Exchange::requireNoRefusal() const {
  if (!refusals_.empty()) {
    throw CommandFailure(ExitCode::Refused, described(request()) + " was refused by " + refusals_);
  }
}

void throwNoAnswer(const BusConnection& connection, const BusRequest& request, double seconds,
                   const std::string& hint) {
  throw CommandFailure(ExitCode::Refused,
                       "no answer to " + described(request) + " from " + connection.where() +
                           " within " + secondsText(std::chrono::duration<double>(seconds)),
                       hint);
}

}  // namespace valtor
