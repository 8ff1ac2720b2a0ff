#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <set>
#include <utility>

#include "app/util/OwnedJSON.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/ConnectionPointListing.h"
#include "valtor-bus/Exchange.h"
#include "valtor-bus/NodeProbe.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;

constexpr double kLongDelay = 1;     // seconds that an answer may take
constexpr double kCameBack = 60;     // seconds in which a link that came back counts as flapping
constexpr double kLossPeriod = 600;  // seconds in which losses are counted
constexpr std::ptrdiff_t kMostLosses = 2;
constexpr std::chrono::milliseconds kProbeTime{1500};
constexpr std::size_t kProbesAtOnce = 256;

// In the order of their weight.
enum class Level { OK, Warning, Unknown, Critical };

// What is found, and the line that says so.
class Verdict {
 public:
  // What the line begins with.
  void head(const std::string& text) { head_ = text; }
  void add(Level level, const std::string& text) {
    level_ = std::max(level_, level);
    reasons_ += (reasons_.empty() ? "" : "; ") + text;
  }
  void figure(const std::string& name, double value, const std::string& rest) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%.15g", value);
    figures_ += (figures_.empty() ? " | " : " ") + name + "=" + text.data() + rest;
  }

  void print(Output& output) const {
    constexpr std::array<const char*, 4> kNames = {"OK", "WARNING", "UNKNOWN", "CRITICAL"};
    constexpr std::array<ExitCode, 4> kCodes = {ExitCode::Done, ExitCode::Warning,
                                                ExitCode::Unknown, ExitCode::Critical};
    const auto number = static_cast<std::size_t>(level_);
    std::string text = head_ + (head_.empty() || reasons_.empty() ? "" : "; ") + reasons_;
    std::replace(text.begin(), text.end(), '|', '/');  // figures begin there
    output.line(std::string(kNames[number]) + ": " + text + figures_);
    if (level_ != Level::OK) {
      throw CommandFailure(kCodes[number], "");
    }
  }

 private:
  Level level_ = Level::OK;
  std::string head_;
  std::string reasons_;
  std::string figures_;
};

// A router as either source tells of it.
struct CheckedRouter {
  std::string name;
  std::string address;
  int port = 0;
  bool enabled = true;
  bool up = false;

  std::string text() const {
    return name + " (" + address + (port > 0 ? ":" + std::to_string(port) : "") + ")";
  }
};

std::string lengthText(double seconds) {
  return std::to_string(static_cast<long long>(std::max(0.0, seconds))) + " s";
}

class StatusCheck {
 public:
  StatusCheck(BusConnection& connection, const StatusSettings& settings)
      : connection_(connection),
        settings_(settings),
        deadline_(Clock::now() + toDuration(settings.timeout)) {}

  Verdict run() {
    std::string problem;
    try {
      const DaemonStatus status = localStatus(connection_.settings(), settings_);
      problem = status.problem();
      if (status.isThere()) {
        judge(status);
      } else {
        askBus();
      }
      if (settings_.probe && !isStandby_) {
        probe();
      }
    } catch (const std::exception& error) {
      verdict_.add(Level::Unknown, printable(error.what()));
    }
    if (!problem.empty()) {
      verdict_.add(Level::OK, problem + ", so only the bus was asked");
    }
    return verdict_;
  }

 private:
  void standBy() {
    isStandby_ = true;
    verdict_.head("standby");
  }

  void judgeLinks() {
    std::string down;
    std::size_t enabled = 0;
    std::size_t up = 0;
    for (const CheckedRouter& router : routers_) {
      enabled += router.enabled ? 1 : 0;
      up += router.enabled && router.up ? 1 : 0;
      if (router.enabled && !router.up) {
        down += (down.empty() ? "down: " : ", ") + router.text();
        named_.insert(router.text());
      }
    }
    verdict_.head(std::to_string(up) + " of " + std::to_string(enabled) +
                  " enabled connection points connected");
    if (!down.empty()) {
      verdict_.add(Level::Critical, down);
    }
    verdict_.figure("connected", static_cast<double>(up), ";;;0;" + std::to_string(enabled));
  }

  void judgeDelay(double seconds) {
    if (seconds > kLongDelay) {
      verdict_.add(Level::Warning, "an answer takes " +
                                       secondsText(std::chrono::duration<double>(seconds)) +
                                       ", messages are waiting");
    }
    if (isStandby_) {
      return;
    }
    verdict_.figure("delay", std::round(seconds * 1000) / 1000, "s;1;;0");
  }

  // --- What the daemon says of itself ------------------------------------------------------------

  void judge(const DaemonStatus& status) {
    if (status.controllerDown) {
      verdict_.add(Level::Unknown,
                   "the controller's link is down" +
                       (status.controllerLink.since
                            ? " for " + lengthText(status.now - *status.controllerLink.since)
                            : ""));
    } else {
      if (status.role == "standby") {
        standBy();
      }
      judgeFlapping(status.controllerLink, "the controller's link", status.now);
    }
    if (!isStandby_) {
      judgeRouters(status);
    }
    if (status.unsavedFiles > 0) {
      verdict_.add(Level::Warning, "what the daemon knows is not on disk, see its log");
    }
    if (const auto answer = askNode(status.controllerDown)) {
      judgeDelay(std::max(status.queueDelay, *answer));
    }
    if (!isStandby_) {
      addFigures(status);
    }
  }

  void judgeRouters(const DaemonStatus& status) {
    for (const DaemonStatus::Router& router : status.routers) {
      const std::string name = router.name.empty() ? router.uniqueID : router.name;
      routers_.push_back({name, router.address, router.port, router.enabled, router.up});
    }
    if (routers_.empty()) {
      verdict_.add(Level::Unknown, "no connection points are listed by the daemon");
    } else {
      judgeLinks();
    }
    for (std::size_t number = 0; number < routers_.size(); ++number) {
      if (routers_[number].enabled && routers_[number].up) {
        judgeRouter(status.routers[number], routers_[number].text(), status.now);
      }
    }
    if (!status.lastLoop.empty() && status.now - status.lastLoopTime < kLossPeriod) {
      verdict_.add(Level::Warning, "a loop: " + status.lastLoop);
    }
  }

  // What the daemon says of itself does not show that it gets anything through the node. How long
  // an answer over it takes, in seconds; none without one.
  std::optional<double> askNode(bool isLinkDown) {
    try {
      openBefore(connection_, deadline_);
      const auto trip = connection_.roundTrip(deadline_);
      if (!trip) {
        verdict_.add(Level::Unknown, "no answer from the node at " + connection_.where());
        return std::nullopt;
      }
      const auto answer = isLinkDown ? trip : askDaemon(connection_, deadline_, true);
      if (!answer) {
        verdict_.add(Level::Unknown, "the daemon does not answer at " + connection_.where());
        return std::nullopt;
      }
      return std::chrono::duration<double>(std::max(*trip, *answer)).count();
    } catch (const CommandFailure& failure) {
      verdict_.add(Level::Unknown, failure.what());
      return std::nullopt;
    }
  }

  void judgeRouter(const DaemonStatus::Router& router, const std::string& text, double now) {
    if (router.stalled) {
      named_.insert(text);
      verdict_.add(Level::Critical,
                   "stalled: " + text + ", " +
                       std::to_string(static_cast<long long>(router.waitingFrames)) +
                       " messages wait");
      return;
    }
    judgeFlapping(router, text, now);
  }

  // Of a link that stands.
  void judgeFlapping(const DaemonStatus::Link& link, const std::string& text, double now) {
    const auto recent = std::count_if(link.losses.begin(), link.losses.end(),
                                      [&](double time) { return now - time < kLossPeriod; });
    // Not behind an end that was meant, such as a standby.
    const bool wasLost = !link.losses.empty() && link.lossTime <= link.losses.back();
    const bool cameBack = wasLost && link.since && now - *link.since < kCameBack;
    if (cameBack || recent > kMostLosses) {
      verdict_.add(Level::Warning,
                   "flapping: " + text +
                       (link.since ? " is back for " + lengthText(now - *link.since) : "") +
                       ", lost " + std::to_string(recent) + " times in 10 minutes" +
                       (link.lossReason.empty() ? "" : ", last " + link.lossReason));
    }
  }

  void addFigures(const DaemonStatus& status) {
    const auto sum = [&](double DaemonStatus::Router::*member) {
      double total = 0;
      for (const DaemonStatus::Router& router : status.routers) {
        total += router.*member;
      }
      return total;
    };
    verdict_.figure("to_routers", sum(&DaemonStatus::Router::toRouter), "c");
    verdict_.figure("from_routers", sum(&DaemonStatus::Router::fromRouter), "c");
    verdict_.figure("waiting", sum(&DaemonStatus::Router::waitingFrames), "");
    verdict_.figure("waiting_bytes", sum(&DaemonStatus::Router::waitingBytes), "B");
    verdict_.figure("dropped", sum(&DaemonStatus::Router::dropped), "c");
    verdict_.figure("lost", sum(&DaemonStatus::Router::lost), "c");
  }

  // --- What the bus tells ------------------------------------------------------------------------

  void askBus() {
    openBefore(connection_, deadline_);
    if (!connection_.roundTrip(deadline_)) {
      verdict_.add(Level::Unknown, "no answer from the node at " + connection_.where());
      return;
    }
    ConnectionPointListing listing(settings_.timeout, connection_.settings().times.others);
    listing.begin();
    const auto [trip, role] = listOverBus(listing);
    if (!trip) {
      verdict_.add(Level::Critical, "no daemon answers on the bus at " + connection_.where());
    } else if (listing.isAnswered()) {
      const auto end = std::min(deadline_, Clock::now() + connection_.settings().times.others);
      do {
        if (const auto message = connection_.receive(end)) {
          listing.take(*message);
        }
      } while (Clock::now() < end);
      judge(listing, std::chrono::duration<double>(*trip).count());
    } else if (role == "standby") {
      standBy();
    } else {
      verdict_.add(Level::Unknown,
                   "the daemon lists no connection points, the controller's role is " +
                       (role.empty() ? "unknown" : role));
    }
  }

  // What is told about the daemon: how long its answer took, if there was one, and the role of its
  // controller.
  struct Told {
    std::optional<Clock::duration> trip;
    std::string role;
  };

  // Asks again until there is enough. The daemon answers in order: once it has said that it is
  // ready, it has listed what there is, unless it has just been started or is on standby.
  Told listOverBus(ConnectionPointListing& listing) {
    Told told;
    ReadinessQuestions ready;
    std::vector<BusRequest> roles;
    Repetition repetition;
    while (!(told.trip && (listing.isAnswered() || told.role == "standby")) &&
           Clock::now() < deadline_) {
      if (Clock::now() >= repetition.due()) {
        repetition.next();
        for (const BusRequest& request : listing.questions()) {
          connection_.send(request);
        }
        ready.ask(connection_);
        connection_.send(roles.emplace_back(makeRequest(
            MessageKind::GET, "system", R"({"param":{"objectName":["mdxMasterState"]}})")));
      }
      if (const auto message = connection_.receive(std::min(deadline_, repetition.due()))) {
        listing.take(*message);
        told.trip = told.trip ? told.trip : ready.tripOf(*message);
        const bool isRole = std::any_of(roles.begin(), roles.end(), [&](const BusRequest& one) {
          return isAnswerTo(one, *message);
        });
        told.role = isRole ? roleIn(*message) : told.role;
      }
    }
    return told;
  }

  static std::string roleIn(const PellInternalMessage& answer) {
    return printable(textOfJSON(memberOfJSON(paramOf(answer), "mdxMasterState")));
  }

  void judge(const ConnectionPointListing& listing, double delay) {
    for (const auto& [uniqueID, row] : listing.table.rows()) {
      const std::size_t colon = row.address.find_last_of(':');
      const bool hasPort = colon != std::string::npos;
      CheckedRouter router{row.name.empty() ? printable(uniqueID) : row.name,
                           row.address.substr(0, colon), 0, row.enabled, row.connected};
      if (hasPort) {
        router.port = std::atoi(row.address.c_str() + colon + 1);
      }
      routers_.push_back(std::move(router));
    }
    if (routers_.empty()) {
      verdict_.add(Level::Unknown, "no connection points are listed by connection " +
                                       std::to_string(listing.answeredBy()));
      return;
    }
    judgeLinks();
    judgeDelay(delay);
  }

  // --- What the routers' nodes show --------------------------------------------------------------

  void probe() {
    std::vector<ProbedNode> nodes;
    std::vector<std::string> texts;
    for (const CheckedRouter& router : routers_) {
      if (router.enabled) {
        nodes.push_back({router.address, router.port, ""});
        texts.push_back(router.text());
      }
    }
    for (std::size_t first = 0; first < nodes.size(); first += kProbesAtOnce) {
      const auto begin = nodes.begin() + static_cast<std::ptrdiff_t>(first);
      std::vector<ProbedNode> some(
          begin, nodes.begin() +
                     static_cast<std::ptrdiff_t>(std::min(nodes.size(), first + kProbesAtOnce)));
      probeNodes(some, connection_.settings(), kProbeTime);
      for (std::size_t number = 0; number < some.size(); ++number) {
        const std::string& text = texts[first + number];
        if (!some[number].fault.empty() && named_.count(text) == 0) {
          verdict_.add(Level::Critical, "no sign of life: " + text + ", " + some[number].fault);
        }
      }
    }
  }

  BusConnection& connection_;
  const StatusSettings& settings_;
  const Clock::time_point deadline_;
  Verdict verdict_;
  std::vector<CheckedRouter> routers_;
  std::set<std::string> named_;  // the texts of those that something was said about
  bool isStandby_ = false;
};

}  // namespace

void checkStatus(BusConnection& connection, const StatusSettings& settings, Output& output) {
  const Verdict verdict = StatusCheck(connection, settings).run();
  try {
    verdict.print(output);
  } catch (const CommandFailure& failure) {
    // What cannot be printed is unknown too.
    throw CommandFailure(*failure.what() == '\0' ? failure.exitCode : ExitCode::Unknown,
                         failure.what());
  }
}

}  // namespace valtor
