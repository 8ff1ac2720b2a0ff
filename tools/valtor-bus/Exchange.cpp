#include "valtor-bus/Exchange.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "support/PrintableText.h"
#include "valtor-bus/CommandFailure.h"
#include "valtor-bus/JSONText.h"

namespace valtor {
namespace {

std::string described(const BusRequest& request) {
  return std::string(kindName(request.kind)) + " on \"" + request.path + "\"";
}

// "connection 101: 404 Not Found", and what the refusal says beyond its status.
std::string refusalOf(const PellInternalMessage& answer) {
  const std::string details = memberOfJSON(bodyOf(answer), "details");
  return "connection " + std::to_string(answer.header.sourceConnID) + ": " + statusOf(answer) +
         (details.empty() ? "" : ", details " + printable(details));
}

}  // namespace

Exchange::Exchange(BusConnection& connection, BusRequest request, double seconds)
    : connection_(connection),
      request_(std::move(request)),
      seconds_(seconds),
      end_(BusConnection::Clock::now() + toDuration(seconds)) {
  connection_.send(request_);
}

std::optional<PellInternalMessage> Exchange::next() {
  try {
    do {
      std::optional<PellInternalMessage> message = connection_.receive(end_);
      if (!message) {
        break;
      }
      if (isAnswerTo(request_, *message)) {
        if (isRefusal(*message)) {
          refusals_ += (refusals_.empty() ? "" : "; ") + refusalOf(*message);
          bound(kTimeAfterRefusal);
        }
        answered_ = answered_ || !isRefusal(*message);
        return message;
      }
    } while (BusConnection::Clock::now() < end_);
  } catch (const LinkFailure&) {
    if (!enough_) {
      throw;
    }
  }
  return std::nullopt;
}

void Exchange::hasEnough() {
  enough_ = true;
  bound(kTimeForOthers);
}

void Exchange::bound(BusConnection::Clock::duration time) {
  end_ = std::min(end_, BusConnection::Clock::now() + time);
}

void Exchange::requireAnswer(const std::string& hint) const {
  if (!answered_) {
    requireNoRefusal();
    throwNoAnswer(connection_, request_, seconds_, hint);
  }
}

void Exchange::requireNoRefusal() const {
  if (!refusals_.empty()) {
    throw CommandFailure(ExitCode::Refused, described(request_) + " was refused by " + refusals_);
  }
}

void throwNoAnswer(const BusConnection& connection, const BusRequest& request, double seconds,
                   const std::string& hint) {
  std::array<char, 40> time{};
  std::snprintf(time.data(), time.size(), " within %g s", seconds);
  throw CommandFailure(
      ExitCode::Refused,
      "no answer to " + described(request) + " from " + connection.where() + time.data(), hint);
}

}  // namespace valtor
