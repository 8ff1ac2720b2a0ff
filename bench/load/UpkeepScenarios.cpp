// What it costs to be there: idle links, memory, restarts, long lists of routers.

#include <algorithm>

#include "load/Scenario.h"

namespace valtor::bench {

namespace {

void idle(const Run& run) {
  for (const int routers : {0, 8, 64}) {
    EventLoop loop;
    Bridge bridge(loop, routers);
    loop.runFor(std::chrono::seconds(1));
    const double cpu = bridge.daemon->cpuSeconds();
    const uint64_t wakeUps = bridge.daemon->wakeUps();
    const int64_t start = nowNs();
    loop.runFor(run.seconds(30, 2));
    const double seconds = static_cast<double>(nowNs() - start) / 1e9;
    const std::string name = "idle/" + std::to_string(routers);
    run.record(name + "/wakeups", static_cast<double>(bridge.daemon->wakeUps() - wakeUps) / seconds,
               "/s");
    run.record(name + "/load", 100 * (bridge.daemon->cpuSeconds() - cpu) / seconds, "");
    run.record(name + "/memory", bridge.daemon->residentBytes(), "bytes");
    for (const Node* router : bridge.routers()) {
      if (router->links() != 1) {
        run.results.fail(name + ": an idle link did not last");
      }
    }
  }
}

void restart(const Run& run) {
  EventLoop loop;
  Bridge bridge(loop, 2);
  Node& router = *bridge.routers()[0];
  Node& other = *bridge.routers()[1];
  Samples times;
  Flow steady(loop, bridge.controller, {&other}, {});
  steady.pace(100);
  for (int i = 0; i < run.pick(8, 2); ++i) {
    router.stop();
    // Another phase of the daemon's attempts each time.
    loop.runFor(std::chrono::milliseconds(700 + 270 * (i % 5)));
    router.start();
    const int64_t start = nowNs();
    Flow flow(loop, bridge.controller, {&router}, {});
    flow.pace(200);
    if (!loop.runUntil([&] { return flow.arrived() > 0; }, std::chrono::seconds(30))) {
      run.results.fail("restart: no message 30 s after the router's restart");
      return;
    }
    times.add(static_cast<double>(nowNs() - start) / 1e9);
    expectInOrder(run, flow.check(0), "restart");
  }
  run.record("restart/p50", times.quantile(0.5), "s");
  run.record("restart/worst", times.quantile(1), "s");
  steady.stop();
  expectWhole(run, loop, steady, "restart, the other router");
  expectAlive(run, bridge, "restart");
}

// A body of as many small values as fit into a frame, in a request that looks into it.
void largeBody(const Run& run) {
  EventLoop loop;
  Bridge bridge(loop, 1);
  std::string values(19'900'000, '1');
  for (std::size_t i = 1; i < values.size(); i += 2) {
    values[i] = ',';
  }
  values.back() = '1';
  const double before = bridge.daemon->residentBytes();
  bridge.daemon->restartPeak();
  bridge.controller.sendPayload(
      "[\"GET\", \"device\", 490, 0, 0]\n{\"id\":\"large\",\"objectName\":[\"x\"],\"values\":[" +
      values + "]}");
  bridge.askForConnectionPoints();
  if (!bridge.allAnswered(std::chrono::seconds(60))) {
    run.results.fail("largeBody: the request behind it is not answered");
  }
  loop.runFor(std::chrono::seconds(1));
  run.record("largeBody/peak", bridge.daemon->peakBytes(), "bytes");
  run.record("largeBody/stays", std::max(0.0, bridge.daemon->residentBytes() - before), "bytes");
  run.record("largeBody/answer", bridge.answerTimes().quantile(1), "s");
  expectAlive(run, bridge, "largeBody");
}

void connectionPoints(const Run& run) {
  const auto measure = [&run](int routers, int disabled, const std::string& name) {
    EventLoop loop;
    Bridge bridge(loop, routers, disabled);
    run.record(name + "/start", std::max(bridge.secondsToAnswer(), bridge.secondsToLinks()), "s");
    const auto answerTo = [&](const std::string& what) {
      if (!bridge.allAnswered(std::chrono::seconds(120))) {
        run.results.fail(name + ": no answer to " + what);
      }
      run.record(name + "/" + what, bridge.answerTimes().quantile(0.5), "s");
      bridge.answerTimes() = Samples();
    };
    for (int i = 0; i < 5; ++i) {
      bridge.askForConnectionPoints();
      bridge.allAnswered(std::chrono::seconds(60));
    }
    answerTo("get");
    run.record(name + "/memory", bridge.daemon->residentBytes(), "bytes");
    if (disabled > 0) {  // all of them replaced by as many others
      bridge.ask("SET", R"("param":{"connectionPoint":[)" +
                            Bridge::disabledEntries(disabled, "new-") + "]}");
      answerTo("set");
    }
    expectAlive(run, bridge, name);
  };
  for (const int count : {10, 100, 1000, 10'000}) {
    measure(0, count, "points/" + std::to_string(count));
  }
  measure(64, 0, "points/64enabled");
}

}  // namespace

const std::vector<Scenario>& upkeepScenarios() {
  static const std::vector<Scenario> scenarios{
      {"idle", "wake-ups, CPU and memory with 0, 8 and 64 routers that say nothing", idle},
      {"restart", "from a router's restart to its first message", restart},
      {"largeBody", "memory after one body of 20 MB of small values", largeBody},
      {"points", "start, GET and SET with 10 to 10,000 disabled and 64 enabled entries",
       connectionPoints},
  };
  return scenarios;
}

}  // namespace valtor::bench
