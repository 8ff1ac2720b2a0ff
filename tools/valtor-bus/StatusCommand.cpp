#include <algorithm>
#include <array>
#include <chrono>

#include "valtor-bus/CommandFailure.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/ConnectionPointTable.h"
#include "valtor-bus/Exchange.h"
#include "valtor-bus/PersistentLink.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;

// Several participants of a bus may have connection points: how long others get after the first.
constexpr std::chrono::milliseconds kTimeForOthers{300};
// How often --watch asks again, so that it notices what nobody announces.
constexpr std::chrono::seconds kAskAgain{10};
constexpr const char* kHint =
    "Is the daemon running and its controller active? On a standby controller it does not answer.";
constexpr const char* kClearScreen = "\x1b[H\x1b[2J";

BusRequest question(const char* list) {
  return makeRequest(MessageKind::GET, "device", requestBody({list}));
}

// Asks for the connection points and keeps the table of them.
class Listing {
 public:
  explicit Listing(double timeout) : timeout_(timeout) {}

  // Begins anew. The caller sends the questions in order: a manager without server connection
  // points does not answer the first, and as it answers in order, it has none once the second is
  // answered.
  const std::array<BusRequest, 2>& begin() {
    questions_ = {question("serverConnectionPoint"), question("connectionPoint")};
    table.beginListing();
    due_ = Clock::now() + toDuration(timeout_);
    answered_ = false;
    running_ = true;
    return questions_;
  }

  // Whether the message changed the table by itself, outside a listing.
  bool take(const PellInternalMessage& message) {
    if (message.getKind() == MessageKind::NOT && message.header.path == "device") {
      const std::string now = timeOfDay(std::chrono::system_clock::now());
      return table.takeNotification(message, now.substr(0, now.find('.'))) && !running_;
    }
    const bool toLast = isAnswerTo(questions_[1], message);
    if (running_ && !isRefusal(message) && (toLast || isAnswerTo(questions_[0], message))) {
      table.takeAnswer(message);
      if (toLast && !answered_) {
        answered_ = true;
        due_ = std::min(due_, Clock::now() + kTimeForOthers);
      }
    }
    return false;
  }

  // Ends it when it is due; whether it did.
  bool endWhenDue() {
    if (!running_ || Clock::now() < due_) {
      return false;
    }
    running_ = false;
    if (answered_) {
      table.endListing();
    }
    return true;
  }

  bool isRunning() const { return running_; }
  bool isAnswered() const { return answered_; }
  Clock::time_point due() const { return due_; }
  const BusRequest& lastQuestion() const { return questions_[1]; }

  ConnectionPointTable table;

 private:
  const double timeout_;
  std::array<BusRequest, 2> questions_;
  Clock::time_point due_;
  bool answered_ = false;
  bool running_ = false;
};

void watchStatus(BusConnection& connection, const StatusSettings& settings, Output& output) {
  Listing listing(settings.timeout);
  std::string shown;
  bool silenceReported = false;
  Clock::time_point askAt;
  const auto show = [&] {
    output.write((output.isTerminal() ? kClearScreen
                  : shown.empty()     ? ""
                                      : "\n") +
                 (shown = listing.table.text(output.hasColour())));
  };
  connection.setSubscriptions({"device"});
  PersistentLink link(connection);
  link.open();
  unsigned asked = 0;  // the opening after which the last questions were asked
  while (!connection.interrupted()) {
    if (connection.isOpen() && (asked != link.openings() || Clock::now() >= askAt)) {
      asked = link.openings();
      askAt = Clock::now() + kAskAgain;
      for (const BusRequest& request : listing.begin()) {
        link.send(request);
      }
    }
    const auto message = link.receive(listing.isRunning() ? listing.due() : askAt);
    if (message && listing.take(*message)) {
      show();
    }
    if (listing.endWhenDue()) {
      if (listing.isAnswered() && shown != listing.table.text(output.hasColour())) {
        show();
      } else if (!listing.isAnswered() && connection.isOpen() && !silenceReported) {
        say("nobody answers about connection points any more. " + std::string(kHint));
      }
      silenceReported = !listing.isAnswered();
    }
    if (!connection.isOpen() && !listing.isRunning()) {
      askAt = Clock::now() + kAskAgain;
    }
  }
}

void listOnce(BusConnection& connection, Listing& listing, double timeout) {
  connection.open();
  for (const BusRequest& request : listing.begin()) {
    connection.send(request);
  }
  while (!listing.endWhenDue() && !connection.interrupted()) {
    if (const auto message = connection.receive(listing.due())) {
      listing.take(*message);
    }
  }
  if (!listing.isAnswered()) {
    throwNoAnswer(connection, listing.lastQuestion(), timeout, kHint);
  }
  connection.finish();
}

}  // namespace

void status(BusConnection& connection, const StatusSettings& settings, Output& output) {
  if (settings.watch) {
    watchStatus(connection, settings, output);
    return;
  }
  Listing listing(settings.timeout);
  try {
    listOnce(connection, listing, settings.timeout);
  } catch (const CommandFailure& failure) {
    if (settings.check) {
      output.line(std::string("UNKNOWN: ") + failure.what());
    }
    throw;
  }
  if (settings.check) {
    output.line(listing.table.summary());
  } else {
    output.write(listing.table.text(output.hasColour()));
  }
  if (settings.check && !listing.table.allConnected()) {
    throw CommandFailure(ExitCode::Refused, "");
  }
}

}  // namespace valtor
