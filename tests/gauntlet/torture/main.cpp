#include <algorithm>
#include <cstdio>
#include <filesystem>

#include <CLI/CLI.hpp>

#include "gauntlet/torture/Torture.h"

namespace valtor::gauntlet {

bool isWanted(const std::string& name, const Settings& settings) {
  return settings.only.empty() ||
         std::any_of(settings.only.begin(), settings.only.end(),
                     [&](const std::string& part) { return name.find(part) != std::string::npos; });
}

int print(const Tally& tally) {
  for (const auto& [name, count] : tally) {
    std::printf("tally %zu %s\n", count, name.c_str());
  }
  const auto findings = tally.find(kFindings);
  return findings != tally.end() && findings->second > 0 ? 1 : 0;
}

namespace {

Build buildIn(const std::string& folder) {
  const std::string path = std::filesystem::absolute(folder);
  return {path + "/src/app/valtor-remote", path + "/root"};
}

int run(int argc, char** argv) {
  Settings settings;
  std::string plain = "build/dev";
  std::string sanitized = "build/asan";
  CLI::App app("Tortures the daemon; see scripts/torture.");
  app.add_option("--plain", plain, "folder of a build without sanitizers");
  app.add_option("--sanitized", sanitized, "folder of a build with them");
  app.add_option("--worker", settings.worker);
  app.add_option("--workers", settings.workers);
  app.add_option("--most", settings.most, "runs altogether, drawn by the seed");
  app.add_option("--seed", settings.seed);
  app.add_option("--only", settings.only, "the runs whose names hold this");
  app.add_flag("--verbose", settings.verbose, "a line for each run");
  app.require_subcommand(1);
  const auto* const calls = app.add_subcommand("calls")->fallthrough();
  const auto* const starved = app.add_subcommand("starved")->fallthrough();
  app.add_subcommand("killed")->fallthrough();
  CLI11_PARSE(app, argc, argv);
  settings.plain = buildIn(plain);
  settings.sanitized = buildIn(sanitized);
  settings.library = VALTOR_FAILING_CALLS;
  if (calls->parsed()) {
    return tortureCalls(settings);
  }
  return starved->parsed() ? tortureStarved(settings) : tortureKilled(settings);
}

}  // namespace
}  // namespace valtor::gauntlet

int main(int argc, char** argv) { return valtor::gauntlet::run(argc, argv); }
