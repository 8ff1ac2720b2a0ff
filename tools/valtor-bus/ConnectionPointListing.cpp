#include "valtor-bus/ConnectionPointListing.h"

#include <algorithm>

#include "valtor-bus/Commands.h"

namespace valtor {
namespace {

constexpr const char* kHint =
    "Is the daemon running and its controller active? On a standby controller it does not answer.";

BusRequest question(const char* list) {
  return makeRequest(MessageKind::GET, "device", requestBody({list}));
}

}  // namespace

void ConnectionPointListing::run(BusConnection& connection, Clock::time_point deadline) {
  openBefore(connection, deadline);
  begin();
  due_ = deadline;
  while (!endWhenDue()) {
    if (isDueAgain()) {
      for (const BusRequest& request : questions()) {
        connection.send(request);
      }
    }
    if (const auto message = connection.receive(due())) {
      take(*message);
    }
  }
  if (!isAnswered()) {
    throwNoAnswer(connection, asked_.back(), timeout_, kHint);
  }
}

void ConnectionPointListing::begin() {
  asked_.clear();
  repetition_ = Repetition();
  table.beginListing();
  due_ = Clock::now() + toDuration(timeout_);
  answered_ = false;
  running_ = true;
}

std::array<BusRequest, 2> ConnectionPointListing::questions() {
  repetition_.next();
  std::array<BusRequest, 2> both = {question("serverConnectionPoint"), question("connectionPoint")};
  asked_.insert(asked_.end(), both.begin(), both.end());
  return both;
}

bool ConnectionPointListing::isDueAgain() const {
  return running_ && !answered_ && Clock::now() >= repetition_.due();
}

bool ConnectionPointListing::take(const PellInternalMessage& message) {
  if (message.getKind() == MessageKind::NOT && message.header.path == "device") {
    return table.takeNotification(message, std::chrono::system_clock::now());
  }
  const auto question = std::find_if(asked_.begin(), asked_.end(), [&](const BusRequest& one) {
    return isAnswerTo(one, message);
  });
  if (!running_ || question == asked_.end() || isRefusal(message)) {
    return false;
  }
  table.takeAnswer(message);
  if ((question - asked_.begin()) % 2 == 1 && !answered_) {
    answered_ = true;
    answeredBy_ = message.header.sourceConnID;
    due_ = std::min(due_, Clock::now() + others_);
  }
  return false;
}

bool ConnectionPointListing::endWhenDue() {
  if (!running_ || Clock::now() < due_) {
    return false;
  }
  running_ = false;
  if (answered_) {
    table.endListing();
  }
  return true;
}

ConnectionPointListing::Clock::time_point ConnectionPointListing::due() const {
  return answered_ ? due_ : std::min(due_, repetition_.due());
}

}  // namespace valtor
