// Everything at once, for long: 32 routers, of which eight are never left alone, while nothing may
// be lost to or from the others.

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>

#include "load/Scenario.h"

namespace valtor::bench {

namespace {

constexpr int kRouters = 32;
constexpr int kRestless = 8;  // the first ones
constexpr int kBurst = 400;   // messages at once, twice in a cycle
constexpr std::chrono::seconds kCycle{20};
constexpr std::chrono::milliseconds kUnrestEvery{400};
constexpr std::chrono::seconds kSettle{60};

struct FlowShape {
  TrafficShape shape;
  double rate;  // messages a second
};
// Towards all routers; the bursts come on top, of the first shape.
constexpr FlowShape kDown[] = {{{"CMD", "route", 490, 300}, 80},
                               {{"NOT", "db", 1, 4 * kKiB}, 15},
                               {{"NOT", "tally", 1, 64 * kKiB}, 2},
                               {{"CMD", "route", 490, 1024 * kKiB}, 0.1}};
// From each router: together some 800 of the thousand that the controller's link takes.
constexpr FlowShape kUp[] = {{{"NOT", "route", 100, 300}, 23},
                             {{"CMD", "route", 490, 8 * kKiB}, 2}};

class Soak {
 public:
  explicit Soak(const Run& run);
  void run();

 private:
  // What happens to a restless router, and how it ends.
  struct Unrest {
    const char* name;
    void (Soak::*begin)(int router);
    void (Soak::*end)(int router);
  };
  static const std::array<Unrest, 7> kUnrest;

  struct Sample {
    double resident;
    double allocated;
    uint64_t descriptors;
    uint64_t threads;
  };

  Node& node(int router) { return *bridge_.routers()[static_cast<std::size_t>(router)]; }
  void stopNode(int router) { node(router).stop(); }
  void startNode(int router) { node(router).start(); }
  void hangUp(int router) { node(router).hangUp(); }
  void nothing(int) {}
  void stall(int router) { node(router).pauseReading(); }
  void resume(int router) { node(router).resumeReading(); }
  void readSlowly(int router) { node(router).readSlowly(100'000); }
  void update(int router, const std::string& address, bool enabled);
  void disable(int router) { update(router, Bridge::routerAddress(router), false); }
  void list(int router) { update(router, Bridge::routerAddress(router), true); }
  void remove(int router);
  void moveAway(int router) { update(router, away_.address(), true); }

  void addFlows();
  void stir();
  void calm();
  void cycle(int number);
  void expectNothingLost();
  // All links up and nothing on its way.
  void settle();
  void upset(int number);
  void measure(int number);
  void expectNoGrowth();
  uint64_t looseLost() const;

  const Run& run_;
  EventLoop loop_;
  Bridge bridge_;
  Node away_;  // where routers move to, one at a time
  std::vector<std::unique_ptr<Flow>> strict_;
  std::vector<std::unique_ptr<Flow>> loose_;
  std::vector<double> strictRates_;
  std::vector<NumberedCheck*> looseChecks_;
  std::array<const Unrest*, kRestless> unrest_{};
  int stirred_ = 0;
  uint64_t unrests_ = 0;
  uint64_t cuts_ = 0;
  std::vector<Sample> samples_;
  const int64_t start_ = nowNs();
};

const std::array<Soak::Unrest, 7> Soak::kUnrest{{
    {"restart", &Soak::stopNode, &Soak::startNode},
    {"disabled", &Soak::disable, &Soak::list},
    {"hung up", &Soak::hangUp, &Soak::nothing},
    {"stalled", &Soak::stall, &Soak::resume},
    {"removed", &Soak::remove, &Soak::list},
    {"moved", &Soak::moveAway, &Soak::list},
    {"slow", &Soak::readSlowly, &Soak::resume},
}};

Soak::Soak(const Run& run)
    : run_(run), bridge_(loop_, kRouters), away_(loop_, "127.0.1.1", kBusPort) {
  addFlows();
}

void Soak::addFlows() {
  const std::vector<Node*> all = bridge_.routers();
  const std::vector<Node*> healthy(all.begin() + kRestless, all.end());
  for (const FlowShape& one : kDown) {
    strict_.push_back(std::make_unique<Flow>(loop_, bridge_.controller, healthy, one.shape));
    strictRates_.push_back(one.rate);
    for (int i = 0; i < kRestless; ++i) {
      looseChecks_.push_back(&strict_.back()->observe(node(i)));
    }
  }
  for (std::size_t i = 0; i < all.size(); ++i) {
    for (const FlowShape& one : kUp) {
      const bool restless = i < kRestless;
      auto& flows = restless ? loose_ : strict_;
      flows.push_back(std::make_unique<Flow>(loop_, *all[i],
                                             std::vector<Node*>{&bridge_.controller}, one.shape));
      if (restless) {
        looseChecks_.push_back(&flows.back()->check(0));
        flows.back()->pace(one.rate);
      } else {
        strictRates_.push_back(one.rate);
      }
    }
  }
}

void Soak::update(int router, const std::string& address, bool enabled) {
  bridge_.controller.sendPayload(
      "[\"UPDATE\", \"device\", 490, 0, 0]\n{\"id\":\"soak\",\"param\":{\"connectionPoint\":[" +
      Bridge::entry(Bridge::routerId(router), address, enabled) + "]}}");
}

void Soak::remove(int router) {
  bridge_.ask("DEL", R"("objectBase":"connectionPoint","objectName":[")" +
                         Bridge::routerId(router) + "\"]");
}

// One router after another: something begins, and ends at its next turn.
void Soak::stir() {
  const int router = stirred_ % kRestless;
  const Unrest*& now = unrest_[static_cast<std::size_t>(router)];
  if (now != nullptr) {
    (this->*now->end)(router);
    now = nullptr;
  } else {
    const int turn = stirred_ / kRestless / 2 + router;
    now = &kUnrest[static_cast<std::size_t>(turn) % kUnrest.size()];
    (this->*now->begin)(router);
    ++unrests_;
  }
  ++stirred_;
  bridge_.askForConnectionPoints();
  Bridge::status();
}

void Soak::calm() {
  for (int i = 0; i < kRestless; ++i) {
    if (const Unrest* now = std::exchange(unrest_[static_cast<std::size_t>(i)], nullptr)) {
      (this->*now->end)(i);
    }
  }
}

void Soak::cycle(int number) {
  for (std::size_t i = 0; i < strict_.size(); ++i) {
    strict_[i]->pace(strictRates_[i]);
  }
  const EventLoop::TimerId stirring = loop_.every(kUnrestEvery, [this] { stir(); });
  const EventLoop::TimerId bursts =
      loop_.every(kCycle / 3, [this] { strict_.front()->send(kBurst); });
  loop_.runFor(kCycle);
  loop_.cancel(stirring);
  loop_.cancel(bursts);
  for (const auto& flow : strict_) {
    flow->stop();
  }
  calm();
  expectNothingLost();
  settle();
  if (!bridge_.allAnswered(kSettle)) {
    run_.results.fail(std::to_string(bridge_.unanswered()) + " requests unanswered");
  }
  measure(number);
  upset(number);
}

void Soak::expectNothingLost() {
  for (const auto& flow : strict_) {
    expectWhole(run_, loop_, *flow, "soak, cycle " + std::to_string(samples_.size()));
    flow->forgetDelays();
  }
  for (NumberedCheck* check : looseChecks_) {
    expectInOrder(run_, *check, "soak, restless router");
    check->forgetDelays();
  }
}

void Soak::settle() {
  const auto quiet = [this] {
    for (const Node* router : bridge_.routers()) {
      if (!router->isReady()) {
        return false;
      }
    }
    if (!bridge_.controller.isReady()) {
      return false;
    }
    const JSONPtr document = Bridge::status();
    const cJSON* router = nullptr;
    int up = 0;
    cJSON_ArrayForEach(router, arrayMember(document.get(), "routers")) {
      const cJSON* waiting = cJSON_GetObjectItem(router, "waiting");
      up += std::string(stringMember(router, "state")) == "up" &&
                    cJSON_GetObjectItem(waiting, "frames")->valueint == 0 &&
                    cJSON_IsFalse(cJSON_GetObjectItem(router, "stalled")) != 0
                ? 1
                : 0;
    }
    return up == kRouters && bridge_.daemon->threads() >= 2 * kRouters;
  };
  const int64_t end = nowNs() + std::chrono::nanoseconds(kSettle).count();
  while (!quiet()) {
    if (nowNs() > end) {
      return run_.results.fail("soak: not all links are up and empty after a minute");
    }
    loop_.runFor(std::chrono::milliseconds(50));
  }
}

// What takes the links of the others too, while nothing strict is on its way.
void Soak::upset(int number) {
  if (number % 3 == 1) {
    bridge_.announceRole("standby");
    const auto left = [this] {
      for (const Node* router : bridge_.routers()) {
        if (router->isLinked()) {
          return false;
        }
      }
      return true;
    };
    if (!loop_.runUntil(left, kSettle)) {
      run_.results.fail("soak: standby not heeded");
    }
    bridge_.announceRole("active");
    ++cuts_;
  } else if (number % 3 == 2) {
    bridge_.controller.stop();
    loop_.runFor(std::chrono::milliseconds(100 * (number % 20)));
    bridge_.controller.start();
    ++cuts_;
  }
  settle();
}

uint64_t Soak::looseLost() const {
  uint64_t lost = 0;
  for (const NumberedCheck* check : looseChecks_) {
    lost += check->skipped();
  }
  return lost;
}

void Soak::measure(int number) {
  // What a starved moment left with the allocator is given back after a large body: the second one
  // also gives back what the first took.
  for (int i = 0; i < 2; ++i) {
    bridge_.controller.sendPayload("[\"NOT\", \"mv\", 1, 0, 0]\n{\"pad\":\"" +
                                   std::string(1200 * kKiB, 'x') + "\"}");
    loop_.runFor(std::chrono::milliseconds(1500));
    settle();
  }
  // The links that have just come up again still have threads of old ones to end.
  const uint64_t expected = samples_.empty() ? 0 : samples_.front().threads;
  loop_.runUntil([&] { return expected == 0 || bridge_.daemon->threads() == expected; },
                 std::chrono::seconds(30));
  const Sample sample{bridge_.daemon->residentBytes(), Bridge::figure({"memory", "allocatedBytes"}),
                      bridge_.daemon->descriptors(), bridge_.daemon->threads()};
  samples_.push_back(sample);
  uint64_t arrived = 0;
  for (const auto* flows : {&strict_, &loose_}) {
    for (const auto& flow : *flows) {
      arrived += flow->arrived();
    }
  }
  if (number % 15 == 1) {
    std::printf("  %8s %12s %8s %6s %14s %12s %12s %6s %7s\n", "minute", "arrived", "unrest",
                "cuts", "lost restless", "memory", "allocated", "files", "threads");
  }
  std::printf("  %8.1f %12llu %8llu %6llu %14llu %8.1f MiB %8.2f MiB %6llu %7llu\n",
              static_cast<double>(nowNs() - start_) / 6e10,
              static_cast<unsigned long long>(arrived), static_cast<unsigned long long>(unrests_),
              static_cast<unsigned long long>(cuts_), static_cast<unsigned long long>(looseLost()),
              sample.resident / 1048576, sample.allocated / 1048576,
              static_cast<unsigned long long>(sample.descriptors),
              static_cast<unsigned long long>(sample.threads));
  std::fflush(stdout);
}

// The first cycles warm up. Later ones stand for the same state, so what they hold is the same.
void Soak::expectNoGrowth() {
  const std::size_t fifth = samples_.size() / 5;
  if (fifth == 0) {
    return run_.results.fail("soak: too short to tell growth");
  }
  // What waits for a moment stays with the allocator: the least of many samples tells what never
  // goes.
  const auto expectLevel = [&](const std::string& name, double Sample::*member, double tolerated) {
    const auto least = [&](std::size_t from) {
      Samples some;
      for (std::size_t i = from; i < from + fifth; ++i) {
        some.add(samples_[i].*member);
      }
      return some.quantile(0);
    };
    const double early = least(fifth);
    const double late = least(samples_.size() - fifth);
    run_.record("soak/" + name + "/early", early, "bytes");
    run_.record("soak/" + name + "/late", late, "bytes");
    if (late > early + tolerated) {
      run_.results.fail("soak: " + name + " memory grows");
    }
  };
  constexpr double kMebi = 1024.0 * 1024;
  // The few samples of a short run need not meet a moment at which nothing waits. 0 under a
  // sanitizer.
  expectLevel("allocated", &Sample::allocated, (run_.minutes < 30 ? 1.5 : 0.5) * kMebi);
  expectLevel("resident", &Sample::resident, 16 * kMebi * bridge_.daemon->memoryFactor());
  for (const Sample& one : samples_) {
    if (one.descriptors != samples_.back().descriptors || one.threads != samples_.back().threads) {
      run_.results.fail("soak: descriptors or threads are not what they were");
      break;
    }
  }
}

void Soak::run() {
  const auto end = start_ + static_cast<int64_t>(run_.minutes * 6e10);
  for (int number = 1; nowNs() < end && bridge_.daemon->isAlive(); ++number) {
    cycle(number);
  }
  expectAlive(run_, bridge_, "soak");
  uint64_t delivered = 0;
  for (const auto& flow : strict_) {
    delivered += flow->arrived();
  }
  run_.record("soak/delivered", static_cast<double>(delivered), "");
  run_.record("soak/unrest", static_cast<double>(unrests_), "");
  run_.record("soak/cpu", bridge_.daemon->cpuSeconds(), "s");
  run_.record("soak/peak", bridge_.daemon->peakBytes(), "bytes");
  run_.record("soak/answer/worst", bridge_.answerTimes().quantile(1), "s");
  std::printf("  %s\n",
              printJSON(cJSON_GetObjectItem(Bridge::status().get(), "warnings"), false).c_str());
  expectNoGrowth();
}

}  // namespace

const std::vector<Scenario>& soakScenarios() {
  static const std::vector<Scenario> scenarios{
      {"soak", "32 routers, eight of them restless, at the pace of the links",
       [](const Run& run) { Soak(run).run(); }},
  };
  return scenarios;
}

}  // namespace valtor::bench
