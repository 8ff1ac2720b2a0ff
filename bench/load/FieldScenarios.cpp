// The faults by which bridges are known to fail in the field.

#include <arpa/inet.h>
#include <array>
#include <cstdlib>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>

#include "load/LinkStage.h"

namespace valtor::bench {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Asks until the daemon has said what is waited for; a failure after half a minute.
void expectSoon(const Run& run, LinkStage& stage, const std::string& name,
                const std::function<bool()>& condition) {
  const int64_t end = nowNs() + 30'000'000'000;
  while (!condition()) {
    if (nowNs() > end) {
      return run.results.fail(name);
    }
    stage.loop.runFor(milliseconds(20));
  }
}

std::string lastReason(int router) {
  const JSONPtr document = Bridge::status();
  const cJSON* const one = cJSON_GetArrayItem(arrayMember(document.get(), "routers"), router);
  const char* const reason = stringMember(cJSON_GetObjectItem(one, "lastLoss"), "reason");
  return reason != nullptr ? reason : "";
}

// One router's node hangs, the power of another fails and comes back: neither link says anything.
void silentLinks(const Run& run) {
  LinkStage stage(run, 3);
  stage.startFlows();
  stage.loop.runFor(milliseconds(300));
  // They take a frame along of which the daemon has most, which must not stay with it.
  const double before = stage.bridge.daemon->residentBytes();
  constexpr double kMost = 19e6;
  for (const int router : {0, 1}) {
    stage.node(router).sendFrame("20000000:[\"NOT\", \"route\", 100, 0, 0]\n{\"pad\":\"" +
                                 std::string(static_cast<std::size_t>(kMost), 'x'));
  }
  expectSoon(run, stage, "field/halfFrame: it does not come", [&] {
    return stage.node(0).unsent() + stage.node(1).unsent() == 0 &&
           stage.bridge.daemon->residentBytes() > before + kMost;
  });
  run.record("field/halfFrame/taken", stage.bridge.daemon->residentBytes() - before, "bytes");
  const int64_t start = nowNs();
  stage.link(0).swallow();
  stage.link(1).swallow();
  stage.node(1).stop();
  stage.loop.runFor(milliseconds(300));
  stage.node(1).start();
  for (const int router : {0, 1}) {
    const std::string name = router == 0 ? "field/staleLink" : "field/halfOpen";
    expectSoon(run, stage, name + ": not noticed", [&] {
      return LinkStage::figure(router, "lost") > 0 && lastReason(router) == "no response";
    });
    run.record(name + "/noticed", static_cast<double>(nowNs() - start) / 1e9, "s");
  }
  const double most = before + kMost / 2 * stage.bridge.daemon->memoryFactor();
  expectSoon(run, stage, "field/halfFrame: its memory stays",
             [&] { return stage.bridge.daemon->residentBytes() < most; });
  stage.recover("field/staleLink");
  stage.judge("field/staleLink");
}

// What was sent while a router was away must not come when it is back, and its return must not make
// the daemon talk more than it has to.
void messageStorm(const Run& run) {
  const std::string name = "field/messageStorm";
  LinkStage stage(run, 8);
  stage.startFlows();
  stage.loop.runFor(milliseconds(300));
  for (int i = 1; i < stage.routers(); ++i) {
    stage.link(i).stopListening();
    stage.link(i).cut();
  }
  stage.down().send(2000);
  stage.loop.runFor(milliseconds(300));
  stage.pauseFlows();
  if (!stage.wait([&] { return stage.down().check(0).next() == stage.down().sent(); })) {
    run.results.fail(name + ": the router that stayed does not get everything");
  }
  const auto toBus = [] { return Bridge::figure({"controller", "toBus", "messages"}); };
  const double before = toBus();
  const uint64_t received = stage.down().check(1).received();
  for (int i = 1; i < stage.routers(); ++i) {
    stage.link(i).listen();
  }
  stage.wait([&] {
    for (int i = 1; i < stage.routers(); ++i) {
      if (!stage.node(i).isReady()) {
        return false;
      }
    }
    return true;
  });
  stage.loop.runFor(milliseconds(500));
  run.record(name + "/toController", toBus() - before, "");
  // The announcement and two questions of each, and some keep-alive.
  if (stage.down().check(1).received() != received || toBus() - before > 3 * 7 + 2) {
    run.results.fail(name + ": a storm");
  }
  stage.resumeFlows();
  stage.recover(name);
  stage.judge(name);
}

void slowConsumer(const Run& run) {
  const std::string name = "field/slowConsumer";
  LinkStage stage(run, 3);
  stage.startFlows();
  Flow body(stage.loop, stage.bridge.controller, {&stage.node(1), &stage.node(2)},
            {"NOT", "db", 1, 64 * kKiB});
  NumberedCheck& slow = body.observe(stage.node(0));
  stage.link(0).stall();
  body.pace(300);
  stage.loop.runFor(milliseconds(3500));
  body.stop();
  // While it stalls: what is held up has not arrived, and is in no figure.
  if (!stage.wait([&] { return body.allArrived(); }, 1)) {
    run.results.fail(name + ": others wait for it: " + std::to_string(body.arrived()) + " of " +
                     std::to_string(2 * body.sent()));
  }
  run.record(name + "/memory", stage.bridge.daemon->residentBytes(), "bytes");
  recordDelays(run, name + "/healthy", body.delays());
  stage.link(0).heal();
  stage.recover(name);  // until then what comes is dropped, too
  body.send(1);
  expectWhole(run, stage.loop, body, name);
  if (!stage.wait([&] { return slow.next() == body.sent(); })) {
    run.results.fail(name + ": the last messages do not arrive");
  }
  stage.judge(name);
  const LinkStage::Loss loss = stage.lossOf(0);
  const auto lost = static_cast<double>(loss.down + slow.skipped());
  run.record(name + "/lost", lost, "");
  if (lost == 0 || lost != LinkStage::figure(0, "dropped")) {
    run.results.fail(name + ": not as many as the status counts");
  }
  if (loss.breaks > 0) {
    run.results.fail(name + ": a link ended for it");
  }
  expectInOrder(run, slow, name);
  // A queue and what the sockets hold.
  const double most = 128.0 * 1024 * kKiB * stage.bridge.daemon->memoryFactor();
  if (stage.bridge.daemon->peakBytes() > most) {
    run.results.fail(name + ": memory");
  }
}

// The link of a stalled router ends: the status counts exactly what waited for it in the daemon.
void lostWithLink(const Run& run) {
  const std::string name = "field/lostWithLink";
  LinkStage stage(run, 2);
  stage.startFlows();
  Flow body(stage.loop, stage.bridge.controller, {&stage.node(1)}, {"NOT", "db", 1, 64 * kKiB});
  NumberedCheck& stalled = body.observe(stage.node(0));
  stage.link(0).stall();
  body.send(400);  // more than sockets hold, less than a queue does
  const auto allPassed = [&] {
    return body.allArrived() && stage.down().check(1).next() == stage.down().sent();
  };
  stage.loop.runFor(milliseconds(300));
  stage.pauseFlows();
  if (!stage.wait(allPassed)) {
    run.results.fail(name + ": the other router does not get everything");
  }
  const double waiting = LinkStage::figure(0, "waiting", "frames");
  stage.link(0).cut();
  expectSoon(run, stage, name + ": nothing is counted",
             [&] { return LinkStage::figure(0, "lostWithLink") > 0; });
  const double counted = LinkStage::figure(0, "lostWithLink");
  run.record(name + "/counted", counted, "");
  // A keep-alive may have joined them.
  if (waiting == 0 || counted < waiting || counted > waiting + 1) {
    run.results.fail(name + ": " + std::to_string(counted) + " of " + std::to_string(waiting));
  }
  stage.link(0).heal();
  stage.resumeFlows();
  stage.recover(name);
  body.send(1);
  if (!stage.wait([&] { return stalled.next() == body.sent(); })) {
    run.results.fail(name + ": the last message does not arrive");
  }
  run.record(name + "/lost", static_cast<double>(stalled.skipped()), "");
  stage.judge(name);
}

// The controller's node takes nothing while routers send more than the sockets hold: what is given
// up is counted, the rest waits at the routers.
void slowController(const Run& run) {
  const std::string name = "field/slowController";
  LinkStage stage(run, 3);
  stage.startFlows();
  Flow bodies(stage.loop, stage.node(0), {&stage.bridge.controller},
              {"CMD", "route", 490, 64 * kKiB});
  stage.controllerLink().stall();
  bodies.pace(200);
  stage.loop.runFor(milliseconds(2500));
  bodies.stop();
  stage.controllerLink().heal();
  bodies.send(1);
  stage.recover(name);
  if (!stage.wait([&] { return bodies.check(0).next() == bodies.sent(); })) {
    run.results.fail(name + ": the last messages do not arrive");
  }
  stage.judge(name, &bodies.check(0));
  const auto lost = static_cast<double>(bodies.check(0).skipped());
  run.record(name + "/lost", lost, "");
  run.record(name + "/memory", stage.bridge.daemon->peakBytes(), "bytes");
  // One for each tenth of a second.
  if (lost > 25) {
    run.results.fail(name + ": more than it may give up");
  }
  if (stage.bridge.daemon->peakBytes() > 64.0 * 1024 * kKiB * stage.bridge.daemon->memoryFactor()) {
    run.results.fail(name + ": memory");
  }
}

// A body that no buffers hold, whose reader pauses amid and after which nothing is sent: nobody
// pushes what is left of it.
void pauseAmidBody(const Run& run) {
  const std::string name = "field/pauseAmidBody";
  LinkStage stage(run, 1);
  Flow body(stage.loop, stage.node(0), {&stage.bridge.controller},
            {"NOT", "route", 100, 16 * 1024 * kKiB});
  bool paused = false;
  stage.controllerLink().after(FaultyLink::kToNode, 1024 * kKiB, [&] {
    paused = true;
    stage.controllerLink().stall();
  });
  body.send(1);
  stage.wait([&] { return paused; });
  stage.loop.runFor(milliseconds(300));
  stage.controllerLink().heal();
  const int64_t start = nowNs();
  if (!paused || !stage.wait([&] { return body.allArrived(); }, 5)) {
    run.results.fail(name + ": it stays on its way");
  }
  run.record(name + "/rest", static_cast<double>(nowNs() - start) / 1e9, "s");
  expectInOrder(run, body.check(0), name);
}

// Nodes that take each link and hang up at once.
void reconnectStorm(const Run& run) {
  const std::string name = "field/reconnectStorm";
  constexpr int kStorming = 6;
  LinkStage stage(run, kStorming + 1);
  stage.startFlows();
  std::vector<std::function<void()>> again(kStorming);
  std::vector<int> before;
  for (int i = 0; i < kStorming; ++i) {
    FaultyLink& link = stage.link(i);
    before.push_back(link.links());
    again[static_cast<std::size_t>(i)] = [&link, &one = again[static_cast<std::size_t>(i)]] {
      link.atNextLink(one);
      link.cut();
    };
    again[static_cast<std::size_t>(i)]();
  }
  const double cpu = stage.bridge.daemon->cpuSeconds();
  const int64_t start = nowNs();
  stage.loop.runFor(run.seconds(20, 4));
  const double time = static_cast<double>(nowNs() - start) / 1e9;
  run.record(name + "/load", 100 * (stage.bridge.daemon->cpuSeconds() - cpu) / time, "");
  int most = 0;
  for (int i = 0; i < kStorming; ++i) {
    stage.link(i).atNextLink(nullptr);
    most = std::max(most, stage.link(i).links() - before[static_cast<std::size_t>(i)]);
  }
  run.record(name + "/links", most, "");
  if (most > static_cast<int>(time) + 2 || most == 0) {
    run.results.fail(name + ": more than one attempt a second, or none");
  }
  stage.recover(name);
  stage.judge(name);
}

void subscriptionLost(const Run& run) {
  const std::string name = "field/subscriptionLost";
  LinkStage stage(run, 1);
  stage.startFlows();
  // What came last of the controller's and of the router's link.
  std::array<std::string, 2> lists;
  const auto watch = [&lists](Node& node, std::size_t place) {
    node.onMessage = [&lists, place, inner = node.onMessage](std::string_view payload) {
      if (payload.find("\"subscribeList\"") != std::string_view::npos) {
        lists[place] = payload;
      }
      if (inner) {
        inner(payload);
      }
    };
  };
  watch(stage.bridge.controller, 0);
  watch(stage.node(0), 1);
  const std::vector<const char*> expected[] = {
      {"device", "db", "system", "route", "tally", "controller", "mdxi.system", "mv", "device*"},
      {"controller*", "device*", "db", "route", "controller", "mdxi.system"}};
  void (FaultyLink::*const ends[])() = {&FaultyLink::cut, &FaultyLink::reset,
                                        &FaultyLink::halfClose, &FaultyLink::endDaemonSide};
  for (const auto end : ends) {
    lists = {};
    (stage.controllerLink().*end)();
    (stage.link(0).*end)();
    stage.wait([&] { return !lists[0].empty() && !lists[1].empty(); });
    for (const std::size_t place : {0U, 1U}) {
      for (const std::string path : expected[place]) {
        if (lists[place].find("{\"path\":\"" + path + "\",\"receiveAll\":true}") ==
            std::string::npos) {
          run.results.fail(name + ": " + path + " is missing in " + lists[place]);
        }
      }
    }
    stage.recover(name);
  }
  stage.judge(name);
}

// Links end again and again while as much is under way as goes.
void endAmidTraffic(const Run& run, const std::string& name, void (FaultyLink::*end)(),
                    int rounds) {
  LinkStage stage(run, 2);
  stage.startFlows();
  for (int i = 0; i < rounds; ++i) {
    stage.down().pace(800);
    stage.up(0).pace(300);
    stage.loop.runFor(milliseconds(300));
    (stage.link(0).*end)();
    stage.loop.runFor(milliseconds(30));
    (stage.controllerLink().*end)();
    stage.recover(name);
  }
  stage.judge(name);  // a message that comes twice is out of order
}

void duplicates(const Run& run) {
  endAmidTraffic(run, "field/duplicates", &FaultyLink::endDaemonSide, run.pick(15, 2));
  endAmidTraffic(run, "field/duplicates", &FaultyLink::reset, run.pick(15, 1));
}

// At the least of some moments, since a keep-alive may be under way.
double allocatedBytes(LinkStage& stage) {
  Samples some;
  for (int i = 0; i < 20; ++i) {
    stage.loop.runFor(milliseconds(50));
    some.add(Bridge::figure({"memory", "allocatedBytes"}));
  }
  return some.quantile(0);
}

void leaks(const Run& run) {
  const std::string name = "field/leaks";
  // What the allocator keeps for each thread counts as allocated, and grows for long.
  setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
  LinkStage stage(run, 16);
  unsetenv("GLIBC_TUNABLES");
  const auto endAll = [&] {
    stage.startFlows();
    stage.controllerLink().reset();
    for (int i = 0; i < stage.routers(); ++i) {
      i % 2 == 0 ? stage.link(i).reset() : stage.link(i).cut();
    }
    stage.recover(name);
    stage.judge(name);
  };
  endAll();
  const uint64_t descriptors = stage.bridge.daemon->descriptors();
  const uint64_t threads = stage.bridge.daemon->threads();
  const double allocated = allocatedBytes(stage);
  const double resident = stage.bridge.daemon->residentBytes();
  const int rounds = run.pick(60, 2);
  for (int i = 0; i < rounds; ++i) {
    endAll();
  }
  const double grown = allocatedBytes(stage) - allocated;
  const double grownResident = stage.bridge.daemon->residentBytes() - resident;
  run.record(name + "/reconnections", rounds * (stage.routers() + 1), "");
  run.record(name + "/allocated", grown, "bytes");
  run.record(name + "/memory", grownResident, "bytes");
  // Some 130 bytes for each reconnection. Under a sanitizer nothing counts as allocated.
  constexpr double kAllocated = 128.0 * kKiB;
  const double factor = stage.bridge.daemon->memoryFactor();
  if (stage.bridge.daemon->descriptors() != descriptors ||
      stage.bridge.daemon->threads() != threads || grown > kAllocated ||
      grownResident > resident * 0.05 + 4.0 * 1024 * kKiB * factor) {
    run.results.fail(name + ": " + std::to_string(stage.bridge.daemon->descriptors()) + " of " +
                     std::to_string(descriptors) + " descriptors, " +
                     std::to_string(stage.bridge.daemon->threads()) + " of " +
                     std::to_string(threads) + " threads, or " + std::to_string(grown) +
                     " bytes more");
  }
}

// Full links that stall and go on all the time: everything waits somewhere, and nothing is lost.
void orderUnderLoad(const Run& run) {
  const std::string name = "field/orderLost";
  LinkStage stage(run, 3);
  stage.startFlows();
  Flow bodies(stage.loop, stage.bridge.controller, stage.bridge.routers(),
              {"NOT", "db", 1, 200 * kKiB});
  bodies.pace(40);
  stage.down().pace(700);
  for (int i = 0; i < stage.routers(); ++i) {
    stage.up(i).pace(250);
  }
  int turn = 0;
  const EventLoop::TimerId stutter = stage.loop.every(milliseconds(40), [&] {
    FaultyLink& link = turn % 4 == 3 ? stage.controllerLink() : stage.link(turn % 4);
    turn / 4 % 2 == 0 ? link.stall() : link.heal();
    ++turn;
  });
  stage.loop.runFor(run.seconds(30, 3));
  stage.loop.cancel(stutter);
  bodies.stop();
  for (int i = 0; i < stage.routers(); ++i) {
    stage.link(i).heal();
  }
  stage.controllerLink().heal();
  expectWhole(run, stage.loop, bodies, name);
  stage.recover(name);
  stage.judge(name);
  const LinkStage::Loss loss = stage.loss();
  if (loss.down + loss.up + loss.breaks > 0) {
    run.results.fail(name + ": " + std::to_string(loss.down) + " lost to routers, " +
                     std::to_string(loss.up) + " from them, " + std::to_string(loss.breaks) +
                     " links ended");
  }
  run.record(name + "/messages",
             static_cast<double>(stage.down().arrived() + stage.up(0).arrived() * 3), "");
}

// An address at which nobody answers: connections neither come about nor are refused.
class DeafAddress {
 public:
  explicit DeafAddress(const char* address) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(kBusPort);
    inet_pton(AF_INET, address, &name.sin_addr);
    const auto* place = reinterpret_cast<const sockaddr*>(&name);
    for (UniqueDescriptor& one : sockets_) {
      one.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    }
    if (bind(sockets_[0].get(), place, sizeof name) != 0 || listen(sockets_[0].get(), 0) != 0) {
      throw std::runtime_error("cannot listen for nobody");
    }
    // They fill the place where connections wait to be taken.
    connect(sockets_[1].get(), place, sizeof name);
    connect(sockets_[2].get(), place, sizeof name);
  }

 private:
  std::array<UniqueDescriptor, 3> sockets_;
};

std::string update(const std::string& entries) {
  return "[\"UPDATE\", \"device\", 490, 0, 0]\n{\"id\":\"field\",\"param\":{\"connectionPoint\":[" +
         entries + "]}}";
}

void stopWhileConnecting(const Run& run) {
  const std::string name = "field/stopWhileConnecting";
  const DeafAddress deaf("127.0.2.1");
  LinkStage stage(run, 2);
  const uint64_t threads = stage.bridge.daemon->threads();
  const uint64_t descriptors = stage.bridge.daemon->descriptors();
  stage.startFlows();
  constexpr int kDeaf = 10;
  std::string entries;
  std::string names;
  std::string disabled;
  for (int i = 0; i < kDeaf; ++i) {
    const std::string id = "deaf-" + std::to_string(i);
    entries += (i > 0 ? "," : "") + Bridge::entry(id, "127.0.2.1", true);
    disabled += (i > 0 ? "," : "") + Bridge::entry(id, "127.0.2.1", i % 2 == 0);
    names += (i > 0 ? ",\"" : "\"") + id + "\"";
  }
  for (int round = 0; round < run.pick(10, 2); ++round) {
    stage.bridge.controller.sendPayload(update(entries));
    expectSoon(run, stage, name + ": they do not connect",
               [&] { return stage.bridge.daemon->threads() == threads + 2 * kDeaf; });
    stage.loop.runFor(milliseconds(100 * round));
    stage.bridge.controller.sendPayload(update(disabled));
    stage.bridge.ask("DEL", R"("objectBase":"connectionPoint","objectName":[)" + names + "]");
    if (!stage.bridge.allAnswered(seconds(30))) {
      run.results.fail(name + ": not removed");
    }
    expectSoon(run, stage, name + ": threads or descriptors stay", [&] {
      return stage.bridge.daemon->threads() == threads &&
             stage.bridge.daemon->descriptors() == descriptors;
    });
  }
  run.record(name + "/removed", stage.bridge.answerTimes().quantile(1), "s");
  stage.recover(name);
  stage.judge(name);
}

// A name where an address belongs is refused, whether the router is new or has a link.
void nameWithoutAddress(const Run& run) {
  const std::string name = "field/nameWithoutAddress";
  LinkStage stage(run, 2);
  stage.startFlows();
  stage.bridge.controller.sendPayload(
      update(Bridge::entry("named", "router.invalid", true) + "," +
             Bridge::entry(Bridge::routerId(0), "gone.invalid", true)));
  stage.bridge.askForConnectionPoints();
  if (!stage.bridge.allAnswered(seconds(30))) {
    run.results.fail(name + ": no answer");
  }
  const JSONPtr document = Bridge::status();
  if (cJSON_GetArraySize(arrayMember(document.get(), "routers")) != 2) {
    run.results.fail(name + ": a router without an address is listed");
  }
  stage.recover(name);
  stage.judge(name);
  if (stage.lossOf(0).breaks > 0) {
    run.results.fail(name + ": a link ended for it");
  }
}

}  // namespace

const std::vector<Scenario>& fieldScenarios() {
  static const std::vector<Scenario> scenarios{
      {"staleLink, halfOpen", "a node that hangs, one that comes back after a power cut",
       silentLinks},
      {"messageStorm", "routers come back after many messages", messageStorm},
      {"slowConsumer", "a router takes nothing while bodies pass", slowConsumer},
      {"lostWithLink", "the link of a router that takes nothing ends", lostWithLink},
      {"slowController", "the controller's node takes nothing while a router sends bodies",
       slowController},
      {"pauseAmidBody", "the controller's node pauses amid a body after which nothing comes",
       pauseAmidBody},
      {"reconnectStorm", "nodes hang up as soon as they are connected", reconnectStorm},
      {"subscriptionLost", "each link asks for all it should, however the last one ended",
       subscriptionLost},
      {"duplicates", "links end again and again amid traffic", duplicates},
      {"leaks", "descriptors, threads and memory after many reconnections", leaks},
      {"orderLost", "full links that stall and go on", orderUnderLoad},
      {"stopWhileConnecting", "routers at an address that never answers are removed",
       stopWhileConnecting},
      {"nameWithoutAddress", "an update gives routers names that nobody resolves",
       nameWithoutAddress},
  };
  return scenarios;
}

}  // namespace valtor::bench
