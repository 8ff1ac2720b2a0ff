#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "valtor-status/BusParticipant.h"
#include "valtor-status/StatusFigures.h"

namespace valtor {

// What became of the daemon's figures over time: the rates of each router, one a second, and a
// strip of events, made of the differences between one look and the next. One thread at a time.
class History {
 public:
  using Clock = std::chrono::steady_clock;

  struct Event {
    uint64_t id = 0;  // counts from 1
    double time = 0;  // seconds since 1970
    std::string kind;
    std::string router;  // unique ID, or ""
    std::string text;    // a sentence for people; names in it as they came
  };
  struct Sample {
    uint64_t number = 0;  // all routers' samples of one moment have the same, counting from 1
    double time = 0;
    float toRouter = 0;  // messages a second
    float fromRouter = 0;
    float toRouterBytes = 0;  // bytes a second
    float fromRouterBytes = 0;
  };

  static constexpr std::size_t kSamples = 120;  // kept for each router
  static constexpr std::size_t kEvents = 200;   // kept in all

  // The daemon answered with these figures.
  void answered(StatusFigures figures, double time, Clock::time_point now);
  // It did not, and why.
  void silent(const std::string& problem, double time);
  void bus(const BusParticipant::View& view, double time);

  // The figures of the last answer; none before the first.
  const std::optional<StatusFigures>& figures() const { return last_; }
  const std::deque<Event>& events() const { return events_; }
  uint64_t lastEvent() const { return lastEvent_; }
  uint64_t lastSample() const { return lastSample_; }
  // Oldest first.
  const std::deque<Sample>& samples(const std::string& uniqueID) const;

 private:
  struct Warning {
    double untold = 0;
    Clock::time_point told;
  };

  // Of each router: messages to and from it, bytes to and from it.
  using Counts = std::unordered_map<std::string, std::array<double, 4>>;

  void add(double time, const char* kind, std::string text, const std::string& router = "");
  void compare(const StatusFigures& before, const StatusFigures& after, double time);
  void compareRouter(const StatusFigures::Router& before, const StatusFigures::Router& after,
                     double time);
  void compareWarnings(const StatusFigures& before, const StatusFigures& after, double time,
                       Clock::time_point now);
  void sample(const StatusFigures& figures, double time, Clock::time_point now);

  std::optional<StatusFigures> last_;
  std::optional<bool> answering_;
  std::optional<bool> busIsUp_;
  std::map<std::string, Warning> warnings_;
  std::deque<Event> events_;
  uint64_t lastEvent_ = 0;
  uint64_t lastSample_ = 0;
  std::optional<Counts> base_;  // of the last sample
  Clock::time_point baseTime_;
  std::map<std::string, std::deque<Sample>> samples_;
};

}  // namespace valtor
