// The load driver: plays the controller's node and the routers' nodes around the real daemon.

#include <cstdio>
#include <exception>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "load/Scenario.h"

namespace {

using namespace valtor::bench;

using Group = const std::vector<Scenario>& (*)();

// What is run together.
const std::map<std::string, std::vector<Group>> kSuites{
    {"load", {trafficScenarios, brokerScenarios, upkeepScenarios, troubleScenarios, pageScenarios}},
    {"links", {linkScenarios, fieldScenarios}},
    {"soak", {soakScenarios}},
};

std::vector<Scenario> scenariosOf(const std::string& suite) {
  std::vector<Scenario> all;
  for (const Group group : kSuites.at(suite)) {
    all.insert(all.end(), group().begin(), group().end());
  }
  return all;
}

struct Options {
  std::string suite = "load";
  std::string build;
  double minutes = 60;
  bool list = false;
  bool quick = false;
  int repeat = 1;
  std::string only = ".";
  std::string output;
};

void runAll(const Options& options, Results& results) {
  const std::regex wanted(options.only);
  bool any = false;
  for (const Scenario& scenario : scenariosOf(options.suite)) {
    if (!std::regex_search(scenario.name, wanted)) {
      continue;
    }
    any = true;
    std::printf("%s: %s\n", scenario.name, scenario.what);
    std::fflush(stdout);
    if (options.list) {
      continue;
    }
    try {
      scenario.run({results, options.quick, options.minutes});
    } catch (const std::exception& error) {
      results.fail(std::string(scenario.name) + ": " + error.what());
    }
  }
  if (!any) {
    results.fail("nothing matches " + options.only);
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Measures the daemon between nodes on loopback; port 15000 must be free");
  Options options;
  app.add_flag("--list", options.list, "Say what can be measured");
  app.add_flag("--quick", options.quick, "Short runs, to check the driver: no figures to quote");
  app.add_option("--suite", options.suite, "load, links (their faults) or soak")
      ->check(CLI::IsMember({"load", "links", "soak"}));
  app.add_option("--build", options.build, "Take the daemon of the build in this folder");
  app.add_option("--minutes", options.minutes, "How long a soak lasts");
  app.add_option("--repeat", options.repeat, "Do everything so often");
  app.add_option("--only", options.only, "Measure what matches this regular expression");
  app.add_option("--output", options.output, "Write the figures to this file, as JSON");
  CLI11_PARSE(app, argc, argv);

  try {
    if (!options.build.empty()) {
      Bridge::useBuild(options.build);
    }
    Results results;
    for (int i = 0; i < (options.list ? 1 : options.repeat); ++i) {
      runAll(options, results);
    }
    if (!options.output.empty()) {
      results.write(options.output);
    }
    return results.isGood() ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_load: %s\n", error.what());
    return 1;
  }
}
