#include <algorithm>
#include <chrono>
#include <optional>

#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/ConnectionPointListing.h"
#include "valtor-bus/PersistentLink.h"
#include "valtor-bus/TextTable.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;

// How often --watch asks again, so that it notices what nobody announces.
constexpr std::chrono::seconds kAskAgain{10};
// How long a link that was opened again may wait to be noticed.
constexpr std::chrono::seconds kLongestWait{1};
constexpr const char* kHint =
    "Is the daemon running and its controller active? On a standby controller it does not answer.";
constexpr double kSocketTime = 0.2;  // seconds for what the daemon says of itself, while watching
constexpr const char* kClearScreen = "\x1b[H\x1b[2J";

// Shows the table again whenever it changes.
class StatusWatch {
 public:
  StatusWatch(BusConnection& connection, const StatusSettings& settings, Output& output)
      : connection_(connection),
        settings_(settings),
        output_(output),
        link_(connection),
        listing_(settings.timeout, connection.settings().times.others) {}

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
      if (!connection_.isOpen() && !connection_.interrupted()) {
        showStale();
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
      takeTimes();
      if (staleSince_ || shown_ != listing_.table.text(output_.hasColour())) {
        show();
      }
    } else if (connection_.isOpen()) {
      if (!silenceReported_) {
        say("nobody answers about connection points. " + std::string(kHint));
        silenceReported_ = true;
      }
      showStale();
    }
  }

  void show() {
    staleSince_.reset();
    shown_ = listing_.table.text(output_.hasColour());
    write(shown_);
  }

  // What is shown may not hold any more.
  void showStale() {
    if (staleSince_ || shown_.empty()) {
      return;
    }
    staleSince_ = std::chrono::system_clock::now();
    const std::string text =
        listing_.table.text(false) + "not known since " + sinceText(*staleSince_) + "\n";
    write(output_.hasColour() ? greyed(text) : text);
  }

  void write(const std::string& text) {
    const char* before = output_.isTerminal() ? kClearScreen : hasWritten_ ? "\n" : "";
    hasWritten_ = true;
    output_.write(before + text);
  }

  // Since when states are as they are is known to the daemon better than to who watches.
  void takeTimes() {
    StatusSettings quick = settings_;
    quick.timeout = kSocketTime;
    listing_.table.takeTimes(localStatus(connection_.settings(), quick));
  }

  BusConnection& connection_;
  const StatusSettings& settings_;
  Output& output_;
  PersistentLink link_;
  ConnectionPointListing listing_;
  Clock::time_point askAt_;
  unsigned askedAfter_ = 0;  // how often the link was opened when the last questions went out
  std::string shown_;
  std::optional<WallTime> staleSince_;
  bool hasWritten_ = false;
  bool silenceReported_ = false;
};

std::string countText(double count) {
  return std::to_string(static_cast<unsigned long long>(std::max(0.0, count)));
}

std::string stateText(const DaemonStatus::Router& router) {
  if (!router.enabled) {
    return "disabled";
  }
  return router.stalled ? "stalled" : router.up ? "up" : "down";
}

std::string colourOfState(const std::string& state) {
  if (state == "disabled") {
    return "";
  }
  return state == "up" ? "\x1b[32m" : "\x1b[31m";
}

// What the daemon says of itself, for a person.
std::string statusText(const DaemonStatus& status, bool colour) {
  const auto since = [](const std::optional<double>& time) {
    return time ? " since " + sinceText(wallTime(*time)) : "";
  };
  std::vector<std::vector<std::string>> lines = {{"NAME", "UNIQUE ID", "ADDRESS", "STATE", "SINCE",
                                                  "TO", "FROM", "WAITING", "DROPPED", "LOST",
                                                  "LAST LOSS"}};
  for (const DaemonStatus::Router& router : status.routers) {
    lines.push_back({router.name, router.uniqueID, router.place(), stateText(router),
                     router.since ? sinceText(wallTime(*router.since)) : "-",
                     countText(router.toRouter), countText(router.fromRouter),
                     countText(router.waitingFrames), countText(router.dropped),
                     countText(router.lost), router.lossReason.empty() ? "-" : router.lossReason});
  }
  return "daemon " + status.version + ", started" + since(status.startTime).replace(0, 6, "") +
         "; role " + (status.role.empty() ? "unknown" : status.role) + since(status.roleSince) +
         "; controller's link " + (status.controllerDown ? "down" : "up") +
         since(status.controllerLink.since) + "\n" +
         textTable(lines, [colour](const std::string& cell, std::size_t column) {
           constexpr std::size_t kState = 3;
           return colour && column == kState ? colourOfState(cell) : "";
         });
}

// The address that a name stands for, as far as it is known without asking.
std::string addressOf(const std::string& host) { return host == "localhost" ? "127.0.0.1" : host; }

}  // namespace

DaemonStatus localStatus(const BusSettings& bus, const StatusSettings& settings) {
  constexpr std::chrono::milliseconds kLongest{1000};
  const std::string address = addressOf(bus.host);
  if (address.rfind("127.", 0) != 0) {
    return DaemonStatus("");
  }
  const auto half =
      std::chrono::duration_cast<std::chrono::milliseconds>(toDuration(settings.timeout) / 2);
  DaemonStatus status = DaemonStatus::ask(settings.socket, std::min(kLongest, half));
  if (!status.problem().empty() && !settings.watch && !settings.check) {
    say(status.problem() + "; the bus is asked instead");
  }
  const bool isOther =
      (status.controllerPort != 0 && status.controllerPort != bus.port) ||
      (!status.controllerAddress.empty() && addressOf(status.controllerAddress) != address);
  return isOther ? DaemonStatus("") : status;
}

void status(BusConnection& connection, const StatusSettings& settings, Output& output) {
  if (settings.watch) {
    StatusWatch(connection, settings, output).run();
    return;
  }
  const Clock::time_point deadline = Clock::now() + toDuration(settings.timeout);
  if (const DaemonStatus own = localStatus(connection.settings(), settings); own.isThere()) {
    output.write(settings.json ? formattedJSON(own.text()) + "\n"
                               : statusText(own, output.hasColour()));
    return;
  }
  ConnectionPointListing listing(settings.timeout, connection.settings().times.others);
  listing.run(connection, deadline);
  output.write(settings.json ? formattedJSON(listing.table.json()) + "\n"
                             : listing.table.text(output.hasColour()));
}

}  // namespace valtor
