// The load driver: plays the controller's node and the routers' nodes around the real daemon.

#include <cstdio>
#include <exception>
#include <regex>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "load/Scenario.h"

namespace {

using namespace valtor::bench;

std::vector<Scenario> allScenarios() {
  std::vector<Scenario> all;
  for (const auto* group :
       {&trafficScenarios(), &brokerScenarios(), &upkeepScenarios(), &troubleScenarios()}) {
    all.insert(all.end(), group->begin(), group->end());
  }
  return all;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Measures the daemon between nodes on loopback; port 15000 must be free");
  bool list = false;
  bool quick = false;
  int repeat = 1;
  std::string only = ".";
  std::string output;
  app.add_flag("--list", list, "Say what can be measured");
  app.add_flag("--quick", quick, "Short runs, to check the driver: no figures to quote");
  app.add_option("--repeat", repeat, "Do everything so often");
  app.add_option("--only", only, "Measure what matches this regular expression");
  app.add_option("--output", output, "Write the figures to this file, as JSON");
  CLI11_PARSE(app, argc, argv);

  Results results;
  const std::regex wanted(only);
  for (int i = 0; i < repeat && !(list && i > 0); ++i) {
    for (const Scenario& scenario : allScenarios()) {
      if (!std::regex_search(scenario.name, wanted)) {
        continue;
      }
      std::printf("%s: %s\n", scenario.name, scenario.what);
      std::fflush(stdout);
      if (list) {
        continue;
      }
      try {
        scenario.run({results, quick});
      } catch (const std::exception& error) {
        results.fail(std::string(scenario.name) + ": " + error.what());
      }
    }
  }
  if (!output.empty()) {
    results.write(output);
  }
  return results.isGood() ? 0 : 1;
}
