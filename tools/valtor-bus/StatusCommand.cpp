#include <algorithm>
#include <chrono>

#include "valtor-bus/CommandFailure.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/ConnectionPointListing.h"
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
      if (listing_.isDueAgain()) {
        for (const BusRequest& request : listing_.questions()) {
          link_.send(request);
        }
      }
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
      listing_.begin();
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
  ConnectionPointListing listing_;
  Clock::time_point askAt_;
  unsigned askedAfter_ = 0;  // how often the link was opened when the last questions went out
  std::string shown_;
  bool silenceReported_ = false;
};

}  // namespace

void status(BusConnection& connection, const StatusSettings& settings, Output& output) {
  if (settings.watch) {
    StatusWatch(connection, settings.timeout, output).run();
    return;
  }
  ConnectionPointListing listing(settings.timeout);
  try {
    listing.run(connection);
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
