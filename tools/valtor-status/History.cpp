#include "valtor-status/History.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace valtor {
namespace {

using Router = StatusFigures::Router;
using Routers = std::unordered_map<std::string_view, const Router*>;

constexpr std::chrono::milliseconds kSampleInterval{900};  // two looks of half a second, roughly
constexpr std::chrono::seconds kLongestSample{3};          // no average over what was not seen
constexpr std::chrono::seconds kWarningInterval{10};       // for each kind
constexpr double kMostTold = 1e15;                         // which a whole number holds exactly

// What a count of warnings counts. Stalls and circles have events of their own.
constexpr std::array<std::pair<const char*, const char*>, 6> kWarnings = {{
    {"notConnected", "Messages dropped since a link is down"},
    {"sendFailed", "Links broken while a message was sent"},
    {"sendGaveUp", "Messages dropped since the far end did not read"},
    {"lostWithLink", "Links lost with messages that waited to leave"},
    {"readingPaused", "Pauses of reading, since more came than could be handled"},
    {"messageFailed", "Messages that could not be handled"},
}};

Routers byUniqueID(const StatusFigures& figures) {
  Routers routers;
  for (const Router& router : figures.routers) {
    routers.emplace(router.uniqueID, &router);
  }
  return routers;
}

double countOf(const StatusFigures& figures, std::string_view kind) {
  for (const auto& [name, count] : figures.warnings) {
    if (name == kind) {
      return count;
    }
  }
  return 0;
}

std::string because(const std::string& reason) { return reason.empty() ? "" : ": " + reason; }

float rate(double before, double after, double seconds) {
  const double value = (after - before) / seconds;
  return std::isfinite(value) && value > 0 ? static_cast<float>(value) : 0;
}

}  // namespace

void History::add(double time, const char* kind, std::string text, const std::string& router) {
  events_.push_back({++lastEvent_, time, kind, router, std::move(text)});
  if (events_.size() > kEvents) {
    events_.pop_front();
  }
}

void History::answered(StatusFigures figures, double time, Clock::time_point now) {
  const bool restarted = last_ && last_->startTime != figures.startTime;
  if (restarted) {
    add(time, "daemon", "The daemon was restarted.");
    base_.reset();
    warnings_.clear();
  } else if (!answering_.value_or(false)) {
    add(time, "daemon", answering_ ? "The daemon answers again." : "The daemon answers.");
  }
  answering_ = true;
  if (last_) {
    compare(*last_, figures, time);
    if (!restarted) {
      compareWarnings(*last_, figures, time, now);
    }
  }
  sample(figures, time, now);
  last_ = std::move(figures);
}

void History::silent(const std::string& problem, double time) {
  if (answering_.value_or(true)) {
    add(time, "daemon", "The daemon does not answer" + because(problem) + ".");
  }
  answering_ = false;
}

void History::bus(const BusParticipant::View& view, double time) {
  if (view.up && !busIsUp_.value_or(false)) {
    add(time, "bus", "The controller's node is reached.");
  } else if (!view.up && busIsUp_.value_or(false)) {
    add(time, "bus", "The controller's node is lost" + because(view.problem) + ".");
  }
  if (view.up || busIsUp_) {
    busIsUp_ = view.up;
  }
}

void History::compare(const StatusFigures& before, const StatusFigures& after, double time) {
  if (before.role != after.role) {
    add(time, "role", "The role is " + after.role + ".");
  }
  if (before.controller.state != after.controller.state) {
    add(time, "bus",
        after.controller.state == "up" ? "The daemon's link to the controller is up."
                                       : "The daemon's link to the controller is down" +
                                             because(after.controller.lossReason) + ".");
  }
  const Routers old = byUniqueID(before);
  const Routers present = byUniqueID(after);
  for (const Router& router : before.routers) {
    if (present.count(router.uniqueID) == 0) {
      add(time, "removed", router.name + " is no longer listed.", router.uniqueID);
      samples_.erase(router.uniqueID);
    }
  }
  for (const Router& router : after.routers) {
    const auto found = old.find(router.uniqueID);
    if (found == old.end()) {
      add(time, "listed", router.name + " is listed, " + router.link.state + ".", router.uniqueID);
    } else {
      compareRouter(*found->second, router, time);
    }
  }
  if (after.loopEpisodes > before.loopEpisodes) {
    add(time, "loop", "A message goes round in circles" + because(after.lastLoop) + ".");
  }
}

void History::compareRouter(const Router& before, const Router& after, double time) {
  const std::string& state = after.link.state;
  const std::string reason = because(after.link.lossReason) + ".";
  if (state != before.link.state) {
    if (state == "up") {
      add(time, "up", after.name + " is up.", after.uniqueID);
    } else if (state == "disabled") {
      add(time, "disabled", after.name + " is disabled.", after.uniqueID);
    } else {
      add(time, "down", after.name + " is down" + reason, after.uniqueID);
    }
  } else if (state == "up" && after.link.lost > before.link.lost) {
    add(time, "down", after.name + " was down for a moment" + reason, after.uniqueID);
  }
  if (after.stalled && !before.stalled) {
    add(time, "stalled", after.name + " takes no messages.", after.uniqueID);
  } else if (!after.stalled && before.stalled) {
    add(time, "flows", after.name + " is no longer stalled.", after.uniqueID);
  }
}

void History::compareWarnings(const StatusFigures& before, const StatusFigures& after, double time,
                              Clock::time_point now) {
  for (const auto& [kind, text] : kWarnings) {
    Warning& warning = warnings_[kind];
    const double count = countOf(after, kind) - countOf(before, kind);
    warning.untold += std::isfinite(count) && count > 0 ? count : 0;
    if (warning.untold > 0 && now - warning.told >= kWarningInterval) {
      const auto told = std::llround(std::min(warning.untold, kMostTold));
      add(time, "warning", std::string(text) + ": " + std::to_string(told) + ".");
      warning = {0, now};
    }
  }
}

void History::sample(const StatusFigures& figures, double time, Clock::time_point now) {
  const auto passed = now - baseTime_;
  if (base_ && passed < kSampleInterval) {
    return;
  }
  Counts counts;
  for (const Router& router : figures.routers) {
    counts.try_emplace(router.uniqueID,
                       Counts::mapped_type{router.toRouter.messages, router.fromRouter.messages,
                                           router.toRouter.bytes, router.fromRouter.bytes});
  }
  if (base_ && passed <= kLongestSample) {
    ++lastSample_;
    const double seconds = std::chrono::duration<double>(passed).count();
    for (const auto& [uniqueID, after] : counts) {
      const auto found = base_->find(uniqueID);
      if (found == base_->end()) {
        continue;
      }
      const auto& before = found->second;
      std::deque<Sample>& ring = samples_[uniqueID];
      ring.push_back({lastSample_, time, rate(before[0], after[0], seconds),
                      rate(before[1], after[1], seconds), rate(before[2], after[2], seconds),
                      rate(before[3], after[3], seconds)});
      if (ring.size() > kSamples) {
        ring.pop_front();
      }
    }
  }
  base_ = std::move(counts);
  baseTime_ = now;
}

const std::deque<History::Sample>& History::samples(const std::string& uniqueID) const {
  static const std::deque<Sample> kNone;
  const auto found = samples_.find(uniqueID);
  return found != samples_.end() ? found->second : kNone;
}

}  // namespace valtor
