#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "load/Bridge.h"
#include "load/EventLoop.h"
#include "load/Flow.h"
#include "load/Results.h"

namespace valtor::bench {

// What a scenario gets: where its figures go, and whether it has time.
struct Run {
  Results& results;
  bool quick = false;
  double minutes = 60;  // of a soak

  template <typename T>
  T pick(T whole, T brief) const {
    return quick ? brief : whole;
  }
  std::chrono::milliseconds seconds(double whole, double brief) const {
    return std::chrono::milliseconds(static_cast<int64_t>(1000 * pick(whole, brief)));
  }
  void record(const std::string& name, double value, const std::string& unit) const {
    results.record(name, value, unit);
  }
};

// One row of the table of scenarios. It starts its own daemon and checks what it sends; an
// exception fails it.
struct Scenario {
  const char* name;
  const char* what;
  void (*run)(const Run& run);
};

const std::vector<Scenario>& trafficScenarios();  // latency, sizes, rates
const std::vector<Scenario>& upkeepScenarios();   // idle, memory, restarts, connection points
const std::vector<Scenario>& troubleScenarios();  // stalls, bursts, cuts
const std::vector<Scenario>& pageScenarios();     // the cost of the live page
const std::vector<Scenario>& brokerScenarios();   // none without the broker's library
const std::vector<Scenario>& linkScenarios();     // links at their worst
const std::vector<Scenario>& fieldScenarios();    // what befalls bridges in the field
const std::vector<Scenario>& soakScenarios();     // all of it, for long

// What the bridge and the brokers are both measured with.
struct Load {
  const char* name;
  std::size_t bytes;
  double rate;  // messages a second
};
constexpr std::size_t kKiB = 1024;
constexpr Load kLoads[] = {
    {"300B", 300, 500}, {"16KiB", 16 * kKiB, 200}, {"1MiB", 1024 * kKiB, 20}};

// NAME/p50, NAME/p99 and NAME/worst.
void recordDelays(const Run& run, const std::string& name, Samples delays);
// Waits until everything that was sent has arrived, or nothing more does for some seconds; fails
// the run when something is lost, out of order or damaged.
void expectWhole(const Run& run, EventLoop& loop, Flow& flow, const std::string& name);
// The same without waiting, for a receiver that may lose messages but not their order.
void expectInOrder(const Run& run, const NumberedCheck& check, const std::string& name);
// Fails the run when the daemon has ended by itself.
void expectAlive(const Run& run, Bridge& bridge, const std::string& name);

}  // namespace valtor::bench
