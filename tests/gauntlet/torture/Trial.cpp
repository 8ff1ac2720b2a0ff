#include "gauntlet/torture/Trial.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <syslog.h>

#include "app/util/Paths.h"

namespace valtor::gauntlet {

namespace {

// The ends that the daemon may meet, with what it says then.
struct Stop {
  const char* said;
  int status;
};
constexpr std::array<Stop, 5> kStops = {{{"The start failed, the process ends: ", 1},
                                         {"getaddrinfo: ", -SIGABRT},
                                         {"createSelfPipe() pipe error", -SIGABRT},
                                         {"primeHostID Memory error", -SIGABRT},
                                         {" could not be started: ", 0}}};

}  // namespace

Trial::Trial(const Build& build, const Settings& settings)
    : prefixSet_((setPathPrefix(build.root), true)), subject_(build, settings.library) {}

void Trial::start(const std::string& command, const std::string& assignments) {
  test::longestWait = std::chrono::seconds(20);
  if (!scene_.becomesDeserted()) {
    outcome_.finding = "a link outlives the daemon";
  }
  subject_.start(command, assignments);
}

void Trial::play(std::chrono::milliseconds patience) {
  test::longestWait = patience;
  for (const Scene::Step& step : scene_.steps()) {
    if (subject_.isRunning() && !step.play()) {
      outcome_.harmed = true;
      test::longestWait = std::chrono::milliseconds(150);
    }
  }
}

std::string Trial::recovery() {
  test::longestWait = std::chrono::seconds(20);
  // A file that is missing or broken: it has to be mended, so nobody tries again.
  if (!scene_.recoversByItself(!subject_.said("Error loading DB connectionPoints: "))) {
    return "it does not recover by itself";
  }
  const bool tells = !subject_.said("Nobody can ask for the status at ") &&
                     !subject_.said("Thread StatusServer could not be started");
  if (!scene_.isGoodAgain(tells)) {
    return "it is not good again";
  }
  subject_.wasFed();  // what it said before does not count
  if (subject_.said("watchdog is fed every") &&
      !test::eventually([&] { return subject_.wasFed(); }, 2 * Subject::kWatchdog)) {
    return "it does not feed its watchdog";
  }
  return standingFault();
}

std::string Trial::standingFault() const {
  const std::string fault = Scene::stateFault();
  return fault.empty() ? scene_.trafficFault() : fault;
}

Trial::Troubles Trial::troubles() const {
  Troubles texts;
  const auto add = [&texts](std::string line) {
    std::erase_if(line, [](unsigned char c) { return std::isdigit(c) != 0; });
    texts.insert(std::move(line));
  };
  for (const Subject::Line& line : subject_.log()) {
    if (line.priority <= LOG_WARNING) {
      add(line.text);
    }
  }
  std::istringstream errors(subject_.errors());
  for (std::string line; std::getline(errors, line);) {
    add(line);
  }
  return texts;
}

const Trial::Outcome& Trial::judge(const Troubles& usual) {
  if (outcome_.finding.empty()) {
    outcome_.finding = standingFault();
  }
  if (subject_.isRunning() && outcome_.finding.empty()) {
    outcome_.finding = recovery();
  }
  for (const std::string& text : troubles()) {
    if (outcome_.told.empty() && usual.count(text) == 0) {
      outcome_.told = text;
    }
  }
  judgeEnd();
  // What fell within getaddrinfo could not say so.
  const bool mute = outcome_.stopped && subject_.faults().resolving > 0;
  if (outcome_.harmed && outcome_.told.empty() && !mute && outcome_.finding.empty()) {
    outcome_.finding = kNotTold;
  }
  if (!outcome_.finding.empty()) {
    outcome_.story = subject_.story();
  } else if (outcome_.stopped) {
    start();
    outcome_.finding += outcome_.finding.empty() ? recovery() : "";
    outcome_.story = subject_.story();
  }
  return outcome_;
}

void Trial::judgeEnd() {
  const bool running = subject_.isRunning();
  const int status = subject_.end();
  const bool fellResolving =
      subject_.faults().resolving > 0 && (status == -SIGSEGV || status == -SIGABRT);
  outcome_.stopped = !running;
  if (!subject_.reports().empty()) {
    outcome_.finding = "sanitizer:\n" + subject_.reports();
  } else if (!running && !fellResolving &&
             std::none_of(kStops.begin(), kStops.end(), [&](const Stop& stop) {
               return stop.status == status && subject_.said(stop.said);
             })) {
    outcome_.finding = "it ended with " + std::to_string(status) + "; " + outcome_.finding;
  }
}

void note(Tally& tally, const std::string& name, const Trial::Outcome& outcome,
          const Settings& settings) {
  ++tally["runs"];
  tally["not all came about"] += outcome.harmed ? 1 : 0;
  tally["told"] += outcome.told.empty() ? 0 : 1;
  tally["stopped as it says"] += outcome.stopped && outcome.finding.empty() ? 1 : 0;
  if (!outcome.finding.empty()) {
    ++tally[kFindings];
    std::printf("%sFINDING %s: %s\n", outcome.story.c_str(), name.c_str(), outcome.finding.c_str());
  } else if (settings.verbose) {
    std::printf("%s:%s%s %s\n", name.c_str(), outcome.harmed ? " harmed" : "",
                outcome.stopped ? " stopped" : "", outcome.told.c_str());
  }
  std::fflush(stdout);
}

}  // namespace valtor::gauntlet
