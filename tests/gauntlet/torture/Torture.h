#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "gauntlet/torture/Subject.h"

namespace valtor::gauntlet {

struct Settings {
  Build plain;
  Build sanitized;
  std::string library;      // FailingCalls
  std::size_t worker = 0;   // the share of the work that is done,
  std::size_t workers = 1;  // of so many
  std::size_t most = 0;     // runs altogether, drawn by the seed; 0: all there are
  unsigned seed = 1;
  std::vector<std::string> only;  // the runs whose names hold one of these; all when empty
  bool verbose = false;
};

bool isWanted(const std::string& name, const Settings& settings);

inline constexpr const char* kFindings = "findings";
using Tally = std::map<std::string, std::size_t>;
// Prints the figures; the exit status, 0 without findings.
int print(const Tally& tally);

int tortureCalls(const Settings& settings);
int tortureStarved(const Settings& settings);
int tortureKilled(const Settings& settings);

}  // namespace valtor::gauntlet
