// How fast, how much, and at what cost.

#include "load/Scenario.h"

namespace valtor::bench {

namespace {

constexpr TrafficShape kDown{"CMD", "route", 490, 300};
constexpr TrafficShape kUp{"NOT", "route", 100, 300};

// Lets the flow run at a rate, warm-up apart; its delays and the CPU time of each delivery.
void measurePaced(const Run& run, EventLoop& loop, Bridge& bridge, Flow& flow, double rate,
                  const std::string& name) {
  flow.pace(rate);
  loop.runFor(std::chrono::milliseconds(500));
  flow.forgetDelays();
  const uint64_t before = flow.arrived();
  const double cpu = bridge.daemon->cpuSeconds();
  loop.runFor(run.seconds(8, 1));
  run.record(name + "/cpu",
             (bridge.daemon->cpuSeconds() - cpu) / static_cast<double>(flow.arrived() - before),
             "s");
  recordDelays(run, name, flow.delays());
  flow.stop();
  expectWhole(run, loop, flow, name);
}

void latency(const Run& run) {
  EventLoop loop;
  Bridge bridge(loop, 1);
  Node& router = *bridge.routers()[0];
  Flow down(loop, bridge.controller, {&router}, kDown);
  Flow up(loop, router, {&bridge.controller}, kUp);
  measurePaced(run, loop, bridge, down, 500, "latency/down");
  measurePaced(run, loop, bridge, up, 500, "latency/up");
  down.pace(500);
  up.pace(500);
  loop.runFor(std::chrono::milliseconds(500));
  down.forgetDelays();
  up.forgetDelays();
  loop.runFor(run.seconds(8, 1));
  recordDelays(run, "latency/together/down", down.delays());
  recordDelays(run, "latency/together/up", up.delays());
  down.stop();
  up.stop();
  expectWhole(run, loop, down, "latency/together/down");
  expectWhole(run, loop, up, "latency/together/up");
  expectAlive(run, bridge, "latency");
}

void sizes(const Run& run) {
  for (const Load& load : kLoads) {
    EventLoop loop;
    Bridge bridge(loop, 1);
    TrafficShape shape = kDown;
    shape.size = load.bytes;
    Flow flow(loop, bridge.controller, bridge.routers(), shape);
    measurePaced(run, loop, bridge, flow, load.rate, std::string("size/") + load.name);
    expectAlive(run, bridge, "size");
  }
}

// As many as pass, with so few under way that their delay says something.
void measureRate(const Run& run, EventLoop& loop, Bridge& bridge,
                 const std::vector<std::unique_ptr<Flow>>& flows, const std::string& name) {
  const auto arrived = [&flows] {
    uint64_t sum = 0;
    for (const auto& flow : flows) {
      sum += flow->arrived();
    }
    return sum;
  };
  for (const auto& flow : flows) {
    flow->keepUnderWay(flows.size() > 1 ? 4 : 50);
  }
  loop.runFor(std::chrono::milliseconds(500));
  const uint64_t before = arrived();
  const double cpu = bridge.daemon->cpuSeconds();
  const int64_t start = nowNs();
  loop.runFor(run.seconds(5, 1));
  const auto count = static_cast<double>(arrived() - before);
  const double seconds = static_cast<double>(nowNs() - start) / 1e9;
  const double cpuUsed = bridge.daemon->cpuSeconds() - cpu;
  run.record(name + "/rate", count / seconds, "/s");
  run.record(name + "/each", count / seconds / static_cast<double>(bridge.routers().size()), "/s");
  run.record(name + "/cpu", cpuUsed / count, "s");
  run.record(name + "/load", 100 * cpuUsed / seconds, "");  // percent of one core
  for (const auto& flow : flows) {
    flow->stop();
  }
  for (const auto& flow : flows) {
    expectWhole(run, loop, *flow, name);
  }
  expectAlive(run, bridge, name);
}

void rates(const Run& run) {
  for (const int routers : {1, 8, 32, 64}) {
    EventLoop loop;
    Bridge bridge(loop, routers);
    const std::string suffix = "/" + std::to_string(routers);
    std::vector<std::unique_ptr<Flow>> down;
    down.push_back(std::make_unique<Flow>(loop, bridge.controller, bridge.routers(), kDown));
    measureRate(run, loop, bridge, down, "rate/down" + suffix);
    std::vector<std::unique_ptr<Flow>> up;
    for (Node* router : bridge.routers()) {
      up.push_back(
          std::make_unique<Flow>(loop, *router, std::vector<Node*>{&bridge.controller}, kUp));
    }
    measureRate(run, loop, bridge, up, "rate/up" + suffix);
    run.record("memory/busy" + suffix, bridge.daemon->residentBytes(), "bytes");
  }
}

}  // namespace

const std::vector<Scenario>& trafficScenarios() {
  static const std::vector<Scenario> scenarios{
      {"latency", "300 B at 500/s, each way alone and both ways together", latency},
      {"size", "300 B, 16 KiB and 1 MiB towards one router", sizes},
      {"rate", "as many messages as pass, with 1, 8, 32 and 64 routers", rates},
  };
  return scenarios;
}

}  // namespace valtor::bench
