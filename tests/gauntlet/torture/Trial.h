#pragma once

#include <chrono>
#include <set>
#include <string>

#include "gauntlet/torture/Scene.h"
#include "gauntlet/torture/Subject.h"
#include "gauntlet/torture/Torture.h"

namespace valtor::gauntlet {

// One daemon in a scene of its own that is done something to, and the judgement about it.
class Trial {
 public:
  static constexpr const char* kNotTold = "nothing tells it";

  struct Outcome {
    bool met = false;      // the fault struck
    bool harmed = false;   // not all of the scenario came about
    std::string told;      // the line that is not there otherwise, without numbers
    bool stopped = false;  // it ended, as it may
    std::string finding;   // what must not be, and how it came to it
    std::string story;
  };
  // Lines of warnings and worse and of standard error, without numbers.
  using Troubles = std::set<std::string>;

  Trial(const Build& build, const Settings& settings);

  // Starts the daemon when the nodes have seen the one before it go: what is said to its links is
  // said to nobody.
  void start(const std::string& command = "", const std::string& assignments = "");
  // Plays the scenario; a step that comes to nothing is waited for that long, those behind it
  // hardly.
  void play(std::chrono::milliseconds patience);
  // When the lack or the fault is over: is it good again, did it tell what was harmed (by a line
  // that is not among the usual ones), did it end as it may and does it start anew? Ends the
  // daemon.
  const Outcome& judge(const Troubles& usual);
  // "" when it recovers and all works.
  std::string recovery();
  Troubles troubles() const;

  Scene& scene() { return scene_; }
  Subject& subject() { return subject_; }
  Outcome& outcome() { return outcome_; }

 private:
  // What must not be, whatever fails: of the state file and of the messages that arrived.
  std::string standingFault() const;
  void judgeEnd();

  const bool prefixSet_;
  Scene scene_;
  Subject subject_;
  Outcome outcome_;
};

// Counts what came of a run, and prints it when it is a finding or all are wanted.
void note(Tally& tally, const std::string& name, const Trial::Outcome& outcome,
          const Settings& settings);

}  // namespace valtor::gauntlet
