#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace valtor {

// What the daemon's status document says, as far as this program works with it. Members that are
// missing or of another type count as 0 or "", a router that has no unique ID is left out. Texts
// are valid UTF-8 and otherwise as they came: whoever shows them escapes them. A value.
struct StatusFigures {
  struct Traffic {
    double messages = 0;
    double bytes = 0;
    double blocked = 0;
    std::vector<std::pair<std::string, double>> rules;  // how many by which
  };
  struct Link {
    std::string state;  // "up", "down" or "disabled"
    double lost = 0;
    std::vector<double> losses;  // when; the newest last
    std::string lossReason;
  };
  struct Router {
    std::string uniqueID;
    std::string name;
    Link link;
    bool stalled = false;
    Traffic toRouter;
    Traffic fromRouter;
    double waitingFrames = 0;
    double waitingBytes = 0;
    double dropped = 0;
    double lostWithLink = 0;
  };
  struct Crossing {
    std::string direction;
    std::string kind;
    std::string path;
    double messages = 0;
    double bytes = 0;
  };

  // None when the document is no JSON object, or does not say when the daemon started.
  static std::optional<StatusFigures> of(const std::string& document);

  std::string version;
  double startTime = 0;  // seconds since 1970, as all times
  double now = 0;
  std::string role;
  Link controller;
  Traffic toBus;
  Traffic fromBus;
  std::vector<Router> routers;
  std::vector<Crossing> crossing;
  double loopEpisodes = 0;
  std::string lastLoop;   // GET on "device" from A to B; "" for none
  double queueDelay = 0;  // seconds
  double unsavedFiles = 0;
  std::vector<std::pair<std::string, double>> warnings;  // by kind
  double residentBytes = 0;
  double allocatedBytes = 0;
};

}  // namespace valtor
