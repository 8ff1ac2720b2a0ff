// The daemon is killed at random moments, whatever it is doing, half of them between two calls of a
// save, and started again.

#include <array>
#include <chrono>
#include <random>
#include <thread>

#include "gauntlet/torture/Trial.h"

namespace valtor::gauntlet {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::size_t kMoments = 500;
enum class Aim { Start, Work, Save };

// Saves, links that end and role changes, for up to a tenth of a second.
void work(Scene& scene, std::mt19937& random) {
  const auto moment = Clock::now() + microseconds(random() % 100000);
  for (bool standby = false; Clock::now() < moment;) {
    switch (random() % 4) {
      case 0:
        standby = !standby;
        (*scene.site().controller)->setRole(standby ? "standby" : "active");
        break;
      case 1:
        (*scene.site().alpha)->closeConnections(MessageNode::kEveryone);
        break;
      default:
        scene.asksToSave();
    }
    std::this_thread::sleep_for(microseconds(random() % 5000));
  }
  std::this_thread::sleep_until(moment);
}

// Before a call that a save makes, whichever.
bool diesWithinASave(Trial& trial, std::mt19937& random) {
  constexpr std::array kCallsOfASave = {Call::fopen,  Call::fwrite, Call::fflush, Call::fsync,
                                        Call::fclose, Call::rename, Call::unlink};
  FaultControl& faults = trial.subject().faults();
  const Call call = kCallsOfASave[random() % kCallsOfASave.size()];
  faults.call = call;
  faults.fault = FaultControl::kDies;
  faults.nth = faults.counts[static_cast<std::size_t>(call)] + 1 + random() % 2;
  faults.armed = true;
  const bool dies = test::eventually([&] {
    trial.scene().asksToSave();
    return test::eventually([&] { return !trial.subject().isRunning(); }, milliseconds(20));
  });
  faults.armed = false;
  return dies;
}

}  // namespace

int tortureKilled(const Settings& settings) {
  const std::size_t moments = settings.most != 0 ? settings.most : kMoments;
  Tally tally;
  Trial trial(settings.plain, settings);
  Scene& scene = trial.scene();
  for (std::size_t i = settings.worker; i < moments; i += settings.workers) {
    const std::string name =
        "moment " + std::to_string(i) + " of seed " + std::to_string(settings.seed);
    if (!isWanted(name, settings)) {
      continue;
    }
    std::mt19937 random(settings.seed + static_cast<unsigned>(i));
    trial.outcome() = {};
    trial.subject().faults().logged = 0;
    scene.forget();
    trial.start();
    const Aim aim = std::array{Aim::Start, Aim::Work, Aim::Save, Aim::Save}[random() % 4];
    test::longestWait = std::chrono::seconds(20);
    if (aim == Aim::Start) {
      std::this_thread::sleep_for(microseconds(random() % 100000));
    } else if (!scene.isUp()) {
      trial.outcome().finding = "it does not come up";
    } else if (!scene.saves()) {
      trial.outcome().finding = "it does not save once it is up";
    } else if (aim == Aim::Work) {
      work(scene, random);
    } else {
      ++tally["killed within a save"];
      if (!diesWithinASave(trial, random)) {
        trial.outcome().finding = "it does not save";
      }
    }
    trial.subject().end();
    if (trial.outcome().finding.empty()) {
      trial.outcome().finding = Scene::stateFault(scene.savedState());
    }
    ++tally["killed"];
    tally["killed while it starts"] += aim == Aim::Start ? 1 : 0;
    tally["with a state file half way"] += Scene::isStateHalfWay() ? 1 : 0;
    (*scene.site().controller)->setRole("active");
    trial.start();
    note(tally, name, trial.judge({}), settings);
  }
  return print(tally);
}

}  // namespace valtor::gauntlet
