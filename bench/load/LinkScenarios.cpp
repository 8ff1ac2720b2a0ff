// Links at their worst: every fault at every phase of a link's life, on routers' links and on the
// controller's.

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

#include "load/LinkStage.h"

namespace valtor::bench {

namespace {

using std::chrono::milliseconds;
using Call = std::function<void()>;

// Seconds that a router that is left alone may wait for a stalled one: three times as long as that
// is waited for.
constexpr double kHeldUp = 3;

struct Fault {
  const char* name;
  void (*strike)(FaultyLink& link);
  milliseconds lasts;  // until it is healed; what ends the link at once is over then
};

const Fault kFaults[] = {
    {"delay",
     [](FaultyLink& link) {
       link.delay(FaultyLink::kToNode, milliseconds(200));
       link.delay(FaultyLink::kToDaemon, milliseconds(200));
     },
     milliseconds(700)},
    {"cut", [](FaultyLink& link) { link.cut(); }, milliseconds(0)},
    {"half-close", [](FaultyLink& link) { link.halfClose(); }, milliseconds(0)},
    {"byte by byte", [](FaultyLink& link) { link.dribble(); }, milliseconds(700)},
    {"stall", [](FaultyLink& link) { link.stall(); }, milliseconds(1300)},
    {"reset", [](FaultyLink& link) { link.reset(); }, milliseconds(0)},
    {"swallow", [](FaultyLink& link) { link.swallow(); }, milliseconds(700)},
    {"duplicate", [](FaultyLink& link) { link.endDaemonSide(); },
     milliseconds(1500)},  // until the next link stands beside it
    {"late answers",
     [](FaultyLink& link) { link.delay(FaultyLink::kToDaemon, milliseconds(1200)); },
     milliseconds(1300)},
};

// Makes a fault strike in that phase, or as soon as it comes.
struct Phase {
  const char* name;
  void (*arm)(LinkStage& stage, FaultyLink& link, const Call& strike);
  enum { None, Idle, LargeBody, RoleChange } during = None;
};

constexpr double kHeeded = 10;  // seconds that the daemon may take to begin with a role change
constexpr std::size_t kLargeBody = 4 * 1024 * kKiB;
// No sums of whole frames, which have 304 and 16,390 bytes: a router gets a large one for each five
// small ones, so these fall within its second large one, and within the fourth that comes.
constexpr std::size_t kAmidOut = 25'001;
constexpr std::size_t kAmidIn = 1'001;

const Phase kPhases[] = {
    {"before login",
     [](LinkStage&, FaultyLink& link, const Call& strike) {
       link.atNextLink(strike);
       link.cut();
     }},
    {"before subscription",
     [](LinkStage&, FaultyLink& link, const Call& strike) {
       link.afterNextLogin(strike);
       link.cut();
     }},
    {"idle", [](LinkStage&, FaultyLink&, const Call& strike) { strike(); }, Phase::Idle},
    {"traffic", [](LinkStage&, FaultyLink&, const Call& strike) { strike(); }},
    {"amid a frame out",
     [](LinkStage&, FaultyLink& link, const Call& strike) {
       link.after(FaultyLink::kToNode, kAmidOut, strike);
     }},
    {"amid a frame in",
     [](LinkStage&, FaultyLink& link, const Call& strike) {
       link.after(FaultyLink::kToDaemon, kAmidIn, strike);
     }},
    {"large body",
     [](LinkStage& stage, FaultyLink& link, const Call& strike) {
       const bool controllers = &link == &stage.controllerLink();
       link.after(controllers ? FaultyLink::kToDaemon : FaultyLink::kToNode, kLargeBody / 2,
                  strike);
     },
     Phase::LargeBody},
    {"role change", [](LinkStage&, FaultyLink&, const Call& strike) { strike(); },
     Phase::RoleChange},
    {"reconnection",
     [](LinkStage&, FaultyLink& link, const Call& strike) {
       link.atNextLink([&link, strike] {
         link.cut();
         link.atNextLink(strike);
       });
       link.cut();
     }},
};

struct Target {
  const Fault& fault;
  FaultyLink& link;
};

// On the controller's link a fault may take the announcement along as long as it is under way: the
// change has begun when the first router is left.
void beginRoleChange(LinkStage& stage, const std::vector<Target>& targets, const std::string& name,
                     const Run& run) {
  stage.bridge.announceRole("standby");
  const auto isLeft = [&stage] {
    const std::vector<Node*> nodes = stage.bridge.routers();
    return std::any_of(nodes.begin(), nodes.end(),
                       [](const Node* one) { return !one->isLinked(); });
  };
  if (&targets.front().link == &stage.controllerLink() && !stage.wait(isLeft, kHeeded)) {
    run.results.fail(name + ": the role does not change");
  }
}

// One trial: the faults strike their links in that phase, end, and all has to be well again.
void strikeAll(LinkStage& stage, const Phase& phase, const std::vector<Target>& targets,
               const std::string& name, const Run& run) {
  stage.startFlows();
  stage.loop.runFor(milliseconds(200));
  if (phase.during == Phase::Idle) {
    stage.pauseFlows();
    stage.loop.runFor(milliseconds(200));
  }
  if (phase.during == Phase::RoleChange) {
    beginRoleChange(stage, targets, name, run);
  }
  std::size_t struck = 0;
  milliseconds lasts{0};
  for (const Target& target : targets) {
    lasts = std::max(lasts, target.fault.lasts);
    phase.arm(stage, target.link, [&struck, &target] {
      ++struck;
      target.fault.strike(target.link);
    });
  }
  if (phase.during == Phase::LargeBody) {
    Flow body(stage.loop, stage.bridge.controller, {}, {"NOT", "db", 1, kLargeBody});
    body.send(1);
  }
  if (!stage.wait([&] { return struck == targets.size(); })) {
    run.results.fail(name + ": only " + std::to_string(struck) + " faults could strike");
  }
  stage.loop.runFor(lasts);
  const bool noticed = run.quick || stage.wait([&] {
    return std::none_of(targets.begin(), targets.end(), [&stage](const Target& target) {
      return target.link.isSwallowing() && &target.link != &stage.controllerLink();
    });
  });
  if (!noticed) {
    run.results.fail(name + ": a silent router is not noticed");
  }
  for (const Target& target : targets) {
    target.link.heal();
  }
  if (phase.during == Phase::Idle) {
    stage.resumeFlows();
  }
  if (phase.during == Phase::RoleChange) {
    // The first announcement may be lost.
    stage.changeRole();
  }
  stage.recover(name);
  stage.judge(name);
}

void say(const std::string& name, const LinkStage::Loss& loss) {
  std::printf("  %-44s lost %4llu to, %4llu from; links ended: %llu\n", name.c_str(),
              static_cast<unsigned long long>(loss.down), static_cast<unsigned long long>(loss.up),
              static_cast<unsigned long long>(loss.breaks));
  std::fflush(stdout);
}

// What was lost by each fault, as a table in Markdown.
class LossTable {
 public:
  explicit LossTable(const char* whose) : whose_(whose) {}

  void add(std::size_t fault, const LinkStage::Loss& loss) {
    Row& row = rows_[fault];
    ++row.trials;
    row.sum.down += loss.down;
    row.sum.up += loss.up;
    row.sum.breaks += loss.breaks;
  }
  void print() const {
    std::printf(
        "| link | fault | trials | links that ended | messages lost to routers |"
        " from routers |\n|---|---|---|---|---|---|\n");
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      std::printf("| %s | %s | %d | %llu | %llu | %llu |\n", whose_, kFaults[i].name,
                  rows_[i].trials, static_cast<unsigned long long>(rows_[i].sum.breaks),
                  static_cast<unsigned long long>(rows_[i].sum.down),
                  static_cast<unsigned long long>(rows_[i].sum.up));
    }
  }

 private:
  struct Row {
    int trials = 0;
    LinkStage::Loss sum{0, 0, 0};
  };
  const char* whose_;
  std::array<Row, std::size(kFaults)> rows_;
};

void record(const Run& run, LinkStage& stage, const std::string& name) {
  run.record(name + "/messages", static_cast<double>(stage.carried()), "");
  run.record(name + "/peak", stage.bridge.daemon->peakBytes(), "bytes");
  run.record(name + "/descriptors", static_cast<double>(stage.bridge.daemon->descriptors()), "");
  run.record(name + "/threads", static_cast<double>(stage.bridge.daemon->threads()), "");
}

// All faults at once, each on a router's link of its own, beside routers that must notice nothing.
void routersLinks(const Run& run) {
  constexpr int kFaulty = static_cast<int>(std::size(kFaults));
  LinkStage stage(run, kFaulty + 2);
  Samples healthy;
  LossTable table("router's");
  for (const Phase& phase : kPhases) {
    std::vector<Target> targets;
    for (int i = 0; i < kFaulty; ++i) {
      targets.push_back({kFaults[i], stage.link(i)});
    }
    const std::string name = std::string("router, ") + phase.name;
    strikeAll(stage, phase, targets, name, run);
    for (int i = 0; i < kFaulty; ++i) {
      say(name + ": " + kFaults[i].name, stage.lossOf(i));
      table.add(static_cast<std::size_t>(i), stage.lossOf(i));
    }
    if (phase.during != Phase::RoleChange) {
      for (int i = kFaulty; i < stage.routers(); ++i) {
        const LinkStage::Loss loss = stage.lossOf(i);
        if (loss.down + loss.up + loss.breaks > 0) {
          run.results.fail(name + ": a healthy router noticed");
        }
        healthy.add(stage.down().check(static_cast<std::size_t>(i)).delays());
      }
    }
  }
  table.print();
  recordDelays(run, "links/router/healthy", healthy);
  if (healthy.quantile(1) > kHeldUp) {
    run.results.fail("router: healthy ones are held up");
  }
  record(run, stage, "links/router");
}

void controllersLink(const Run& run) {
  LinkStage stage(run, 3);
  LossTable table("controller's");
  for (std::size_t phase = 0; phase < std::size(kPhases); ++phase) {
    // A brief run meets each fault and each phase at least twice.
    for (std::size_t i = run.quick ? phase % 4 : 0; i < std::size(kFaults);
         i += run.quick ? 4 : 1) {
      const Fault& fault = kFaults[i];
      const std::string name =
          std::string("controller, ") + kPhases[phase].name + ": " + fault.name;
      strikeAll(stage, kPhases[phase], {{fault, stage.controllerLink()}}, name, run);
      say(name, stage.loss());
      table.add(i, stage.loss());
    }
  }
  table.print();
  record(run, stage, "links/controller");
}

}  // namespace

const std::vector<Scenario>& linkScenarios() {
  static const std::vector<Scenario> scenarios{
      {"routersLinks", "every fault at every phase of a router's link, two routers left alone",
       routersLinks},
      {"controllersLink", "the same on the controller's link", controllersLink},
  };
  return scenarios;
}

}  // namespace valtor::bench
