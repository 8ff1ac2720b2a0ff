// Routers that do not read, bursts, a machine without time, links that are cut.

#include "load/Scenario.h"

namespace valtor::bench {

namespace {

// Towards the healthy routers, all but the first: their part of the rate, their delays, and that
// nothing is lost to them. The first one only has to keep the order.
void recordHealthy(const Run& run, EventLoop& loop, Flow& healthy, double seconds,
                   const std::string& name) {
  double slowest = 1e9;
  for (std::size_t i = 0; i < healthy.receivers(); ++i) {
    slowest = std::min(slowest, static_cast<double>(healthy.check(i).delays().count()) / seconds);
  }
  run.record(name + "/rate", slowest, "/s");
  healthy.stop();
  loop.runUntil([&] { return healthy.allArrived(); }, std::chrono::seconds(1));
  recordDelays(run, name, healthy.delays());
}

void neverReads(const Run& run) {
  constexpr double kRate = 200;
  EventLoop loop;
  Bridge bridge(loop, 3);
  std::vector<Node*> routers = bridge.routers();
  Node& stalled = *routers[0];
  Flow flow(loop, bridge.controller, {routers[1], routers[2]}, {"CMD", "route", 490, 16 * kKiB});
  const NumberedCheck& atStalled = flow.observe(stalled);
  flow.pace(kRate);
  loop.runFor(std::chrono::milliseconds(500));
  stalled.pauseReading();
  loop.runFor(run.seconds(4, 4));  // until its socket is full
  flow.forgetDelays();
  const EventLoop::TimerId asking =
      loop.every(std::chrono::milliseconds(500), [&] { bridge.askForConnectionPoints(); });
  const double cpu = bridge.daemon->cpuSeconds();
  const auto time = run.seconds(20, 5);
  loop.runFor(time);
  loop.cancel(asking);
  const double seconds = std::chrono::duration<double>(time).count();
  run.record("neverReads/load", 100 * (bridge.daemon->cpuSeconds() - cpu) / seconds, "");
  run.record("neverReads/memory", bridge.daemon->residentBytes(), "bytes");
  recordHealthy(run, loop, flow, seconds, "neverReads");
  stalled.resumeReading();
  expectWhole(run, loop, flow, "neverReads");
  expectInOrder(run, atStalled, "neverReads, the stalled one");
  if (!bridge.allAnswered(std::chrono::seconds(60))) {
    run.results.fail("neverReads: " + std::to_string(bridge.unanswered()) + " GETs unanswered");
  }
  run.record("neverReads/get", bridge.answerTimes().quantile(1), "s");
  expectAlive(run, bridge, "neverReads");
}

void pauses(const Run& run) {
  EventLoop loop;
  Bridge bridge(loop, 2);
  std::vector<Node*> routers = bridge.routers();
  // With the usual buffers the kernel keeps all of the 7 s.
  routers[0]->stop();
  routers[0]->limitReceiveBuffer(16 * 1024);
  routers[0]->start();
  if (!loop.runUntil([&] { return routers[0]->isReady(); }, std::chrono::seconds(30))) {
    run.results.fail("pauses: no link");
  }
  Flow flow(loop, bridge.controller, routers, {});
  flow.pace(460);
  loop.runFor(std::chrono::milliseconds(500));
  flow.forgetDelays();
  routers[0]->pauseReading();
  loop.runFor(std::chrono::seconds(7));
  routers[0]->resumeReading();
  loop.runFor(run.seconds(5, 1));
  flow.stop();
  expectWhole(run, loop, flow, "pauses");
  recordDelays(run, "pauses/other", flow.check(1).delays());
  expectAlive(run, bridge, "pauses");
}

void measureBurst(const Run& run, int routers, uint64_t count, const std::string& name) {
  EventLoop loop;
  Bridge bridge(loop, routers);
  Flow flow(loop, bridge.controller, bridge.routers(), {});
  const int64_t start = nowNs();
  flow.send(count);
  expectWhole(run, loop, flow, name);
  run.record(name + "/rate",
             static_cast<double>(flow.arrived()) / (static_cast<double>(nowNs() - start) / 1e9),
             "/s");
  run.record(name + "/peak", bridge.daemon->peakBytes(), "bytes");
  expectAlive(run, bridge, name);
}

void burst(const Run& run) { measureBurst(run, 1, run.pick(20'000U, 3'000U), "burst/1"); }

void starved(const Run& run) {
  const OnOneCpu oneCpu;
  const Process busy([] {
    for (volatile int i = 0;;) {
      i = i + 1;
    }
  });
  measureBurst(run, 3, run.pick(20'000U, 3'000U), "starved/3");
}

// More than one router takes, which reads this many bytes a second, then the controller's node
// hangs up. Meanwhile the other router sends commands.
void measureCut(const Run& run, std::size_t readingRate, const std::string& name) {
  EventLoop loop;
  Bridge bridge(loop, 2);
  std::vector<Node*> routers = bridge.routers();
  routers[0]->readSlowly(readingRate);
  Flow down(loop, bridge.controller, routers, {"CMD", "route", 490, 64 * kKiB});
  Flow up(loop, *routers[1], {&bridge.controller}, {"CMD", "route", 100, 300});
  down.flood(4096 * kKiB);
  loop.runFor(run.seconds(8, 5));
  up.pace(20);
  loop.runFor(std::chrono::milliseconds(500));
  down.stop();
  bridge.controller.hangUp();
  const int64_t start = nowNs();
  if (!loop.runUntil([&] { return bridge.controller.isReady(); }, std::chrono::seconds(120))) {
    run.results.fail(name + ": not connected again after 120 s");
  }
  run.record(name + "/back", static_cast<double>(nowNs() - start) / 1e9, "s");
  loop.runFor(std::chrono::seconds(2));
  up.stop();
  loop.runUntil([&] { return up.allArrived(); }, std::chrono::seconds(1));
  run.record(name + "/lostCommands", static_cast<double>(up.sent() - up.arrived()), "");
  for (NumberedCheck* check : {&down.check(0), &down.check(1), &up.check(0)}) {
    expectInOrder(run, *check, name);
  }
  expectAlive(run, bridge, name);
}

void cut(const Run& run) { measureCut(run, 500'000, "cut/slow"); }
void cutStalled(const Run& run) { measureCut(run, 0, "cut/stalled"); }

void standby(const Run& run) {
  EventLoop loop;
  Bridge bridge(loop, 2);
  std::vector<Node*> routers = bridge.routers();
  routers[0]->pauseReading();
  Flow flow(loop, bridge.controller, {routers[1]}, {"CMD", "route", 490, 16 * kKiB});
  flow.pace(200);
  loop.runFor(run.seconds(15, 6));
  flow.stop();
  bridge.announceRole("standby");
  const int64_t start = nowNs();
  if (!loop.runUntil([&] { return !routers[1]->isLinked(); }, std::chrono::seconds(300))) {
    run.results.fail("standby: not heeded after 300 s");
  }
  run.record("standby/heeded", static_cast<double>(nowNs() - start) / 1e9, "s");
  expectWhole(run, loop, flow, "standby");
  expectAlive(run, bridge, "standby");
}

}  // namespace

const std::vector<Scenario>& troubleScenarios() {
  static const std::vector<Scenario> scenarios{
      {"neverReads", "one of 3 routers never reads, 16 KiB at 200/s: what the others see",
       neverReads},
      {"pauses", "one of 2 routers pauses 7 s, 300 B at 460/s", pauses},
      {"burst", "20,000 messages at once to one router", burst},
      {"starved", "20,000 at once to 3 routers, all on one CPU with a busy loop", starved},
      {"cut", "the controller's link is cut behind a router that reads 500 kB/s", cut},
      {"cutStalled", "the same behind one that reads nothing", cutStalled},
      {"standby", "a standby while a router is stalled", standby},
  };
  return scenarios;
}

}  // namespace valtor::bench
