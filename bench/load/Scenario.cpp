#include "load/Scenario.h"

namespace valtor::bench {

namespace {

constexpr std::chrono::seconds kNoMoreComes{10};

}  // namespace

void recordDelays(const Run& run, const std::string& name, Samples delays) {
  run.record(name + "/p50", delays.quantile(0.5), "s");
  run.record(name + "/p99", delays.quantile(0.99), "s");
  run.record(name + "/worst", delays.quantile(1), "s");
}

void expectWhole(const Run& run, EventLoop& loop, Flow& flow, const std::string& name) {
  for (uint64_t before = 0; !flow.allArrived();) {
    before = flow.arrived();
    if (!loop.runUntil([&] { return flow.arrived() > before; }, kNoMoreComes)) {
      break;
    }
  }
  for (std::size_t i = 0; i < flow.receivers(); ++i) {
    const NumberedCheck& check = flow.check(i);
    const std::string who = name + ", receiver " + std::to_string(i);
    if (check.received() < flow.sent()) {
      run.results.fail(who + ": " + std::to_string(flow.sent() - check.received()) + " of " +
                       std::to_string(flow.sent()) + " lost");
    }
    expectInOrder(run, check, who);
  }
}

void expectInOrder(const Run& run, const NumberedCheck& check, const std::string& name) {
  if (check.reordered() > 0 || check.damaged() > 0) {
    run.results.fail(name + ": " + std::to_string(check.reordered()) + " out of order, " +
                     std::to_string(check.damaged()) + " damaged");
  }
}

void expectAlive(const Run& run, Bridge& bridge, const std::string& name) {
  if (!bridge.daemon->isAlive()) {
    run.results.fail(name + ": the daemon has ended");
  }
}

}  // namespace valtor::bench
