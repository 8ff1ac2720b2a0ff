// The daemon is killed at random moments, whatever it is doing, and started again.

#include <chrono>
#include <random>
#include <thread>

#include "gauntlet/torture/Trial.h"

namespace valtor::gauntlet {

namespace {

constexpr std::size_t kMoments = 500;

}  // namespace

int tortureKilled(const Settings& settings) {
  using Clock = std::chrono::steady_clock;
  const std::size_t moments = settings.most != 0 ? settings.most : kMoments;
  Tally tally;
  Trial trial(settings.plain, settings);
  Scene& scene = trial.scene();
  for (std::size_t i = settings.worker; i < moments; i += settings.workers) {
    std::mt19937 random(settings.seed + static_cast<unsigned>(i));
    trial.outcome() = {};
    scene.forget();
    trial.subject().start();
    // One in four while it starts.
    const bool starting = random() % 4 == 0;
    test::longestWait = std::chrono::seconds(20);
    if (!starting && !scene.isUp()) {
      trial.outcome().finding = "it does not come up";
    }
    const auto moment = Clock::now() + std::chrono::microseconds(random() % 100000);
    for (bool standby = false; !starting && Clock::now() < moment;) {
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
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
    }
    std::this_thread::sleep_until(moment);
    trial.subject().end();
    ++tally["killed"];
    tally["killed while it starts"] += starting ? 1 : 0;
    tally["with a state file half way"] += Scene::isStateHalfWay() ? 1 : 0;
    (*scene.site().controller)->setRole("active");
    trial.subject().start();
    note(tally, "moment " + std::to_string(i) + " of seed " + std::to_string(settings.seed),
         trial.judge({}), settings);
  }
  return print(tally);
}

}  // namespace valtor::gauntlet
