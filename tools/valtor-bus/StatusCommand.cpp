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

// How often --watch asks again, so that it notices what nobody announces.
constexpr std::chrono::seconds kAskAgain{10};
// How long a link that was opened again may wait to be noticed.
constexpr std::chrono::seconds kLongestWait{1};
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

  // Whether the message is one that changed the table by itself.
  bool take(const PellInternalMessage& message) {
    if (message.getKind() == MessageKind::NOT && message.header.path == "device") {
      return table.takeNotification(message, std::chrono::system_clock::now());
    }
    const bool toLast = isAnswerTo(questions_[1], message);
    if (running_ && !isRefusal(message) && (toLast || isAnswerTo(questions_[0], message))) {
      table.takeAnswer(message);
      if (toLast && !answered_) {
        answered_ = true;
        answeredBy_ = message.header.sourceConnID;
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
  int32_t answeredBy() const { return answeredBy_; }  // the first connection that did
  Clock::time_point due() const { return due_; }
  const BusRequest& lastQuestion() const { return questions_[1]; }

  ConnectionPointTable table;

 private:
  const double timeout_;
  std::array<BusRequest, 2> questions_;
  Clock::time_point due_;
  bool answered_ = false;
  int32_t answeredBy_ = 0;
  bool running_ = false;
};

// Shows the table again whenever it changes.
class StatusWatch {
 public:
  StatusWatch(BusConnection& connection, double timeout, Output& output)
      : connection_(connection), output_(output), link_(connection), listing_(timeout) {}

  // Until interrupted.
  void run() {
    connection_.setSubscriptions({"device"});
    link_.open();
    while (!connection_.interrupted()) {
      askWhenDue();
      const auto due = listing_.isRunning() ? listing_.due() : askAt_;
      const auto message = link_.receive(std::min(due, Clock::now() + kLongestWait));
      if (message && listing_.take(*message)) {
        show();
      }
      output_.endWithoutReader();
      if (listing_.endWhenDue()) {
        reportListing();
      }
    }
  }

 private:
  // After every opening, and again and again.
  void askWhenDue() {
    if (askedAfter_ == link_.openings() && Clock::now() < askAt_) {
      return;
    }
    askAt_ = Clock::now() + kAskAgain;
    if (connection_.isOpen()) {
      askedAfter_ = link_.openings();
      for (const BusRequest& request : listing_.begin()) {
        link_.send(request);
      }
    }
  }

  void reportListing() {
    if (listing_.isAnswered()) {
      silenceReported_ = false;
      if (shown_ != listing_.table.text(output_.hasColour())) {
        show();
      }
    } else if (connection_.isOpen() && !silenceReported_) {
      say("nobody answers about connection points. " + std::string(kHint));
      silenceReported_ = true;
    }
  }

  void show() {
    const char* before = output_.isTerminal() ? kClearScreen : shown_.empty() ? "" : "\n";
    shown_ = listing_.table.text(output_.hasColour());
    output_.write(before + shown_);
  }

  BusConnection& connection_;
  Output& output_;
  PersistentLink link_;
  Listing listing_;
  Clock::time_point askAt_;
  unsigned askedAfter_ = 0;  // how often the link was opened when the last questions went out
  std::string shown_;
  bool silenceReported_ = false;
};

void listOnce(BusConnection& connection, Listing& listing, double timeout) {
  connection.open();
  for (const BusRequest& request : listing.begin()) {
    connection.send(request);
  }
  while (!listing.endWhenDue()) {
    if (const auto message = connection.receive(listing.due())) {
      listing.take(*message);
    }
  }
  if (!listing.isAnswered()) {
    throwNoAnswer(connection, listing.lastQuestion(), timeout, kHint);
  }
}

}  // namespace

void status(BusConnection& connection, const StatusSettings& settings, Output& output) {
  if (settings.watch) {
    StatusWatch(connection, settings.timeout, output).run();
    return;
  }
  Listing listing(settings.timeout);
  try {
    listOnce(connection, listing, settings.timeout);
    if (settings.check && listing.table.rows().empty()) {
      throw CommandFailure(ExitCode::Refused, "no connection points are listed by connection " +
                                                  std::to_string(listing.answeredBy()));
    }
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
