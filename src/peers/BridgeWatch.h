#pragma once

#include <new>
#include <syslog.h>

#include "app/util/OwnedJSON.h"
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

// Runs what only watches a message: that must not cost the message itself, nor its answer.
template <typename Watcher>
void justWatch(const Watcher& watcher) {
  const JSONFailureScope scope;
  try {
    watcher();
  } catch (const std::bad_alloc&) {
    syslog(LOG_ERR, "A message is not counted: no memory.\n");
  }
}

}  // namespace valtor
