#pragma once

#include "peers/Crossings.h"
#include "peers/LoopWatch.h"
#include "peers/TrafficTap.h"

namespace valtor {

// What is seen of the messages that cross one manager's bridge. Shared by the manager and its
// peers.
struct BridgeWatch {
  Crossings crossings;
  LoopWatch loops;
  TrafficTap tap;
};

}  // namespace valtor
