#include "app/StatusDocument.h"

#include <chrono>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <unistd.h>
#include <utility>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "app/util/TrafficCount.h"
#include "app/util/Warnings.h"
#include "bus/ValtorInterfaceClient.h"
#include "peers/DispatcherPeerClient.h"
#include "peers/RemoteValtorConnectionPointManager.h"
#include "peers/ValtorRouterPeerManager.h"

namespace valtor {

namespace {

using WallClock = std::chrono::system_clock;

const WallClock::time_point kStart = WallClock::now();

void addTime(cJSON* object, const char* name, WallClock::time_point time) {
  const std::chrono::duration<double> seconds = time.time_since_epoch();
  cJSON_AddNumberToObject(object, name, seconds.count());
}

void addCount(cJSON* object, const char* name, uint64_t count) {
  cJSON_AddNumberToObject(object, name, static_cast<double>(count));
}

JSONPtr traffic(const TrafficCount::Figures& figures) {
  JSONPtr object(cJSON_CreateObject());
  addCount(object.get(), "messages", figures.messages);
  addCount(object.get(), "bytes", figures.bytes);
  return object;
}

JSONPtr bridged(const TrafficCount::Figures& figures, const RuleCounts::Figures& rules) {
  JSONPtr object = traffic(figures);
  JSONPtr byRule(cJSON_CreateObject());
  uint64_t blocked = 0;
  for (const auto& [rule, count] : rules) {
    addCount(byRule.get(), rule, count);
    blocked += count;
  }
  addCount(object.get(), "blocked", blocked);
  addMember(object.get(), "rules", std::move(byRule));
  return object;
}

// Since when, how often lost, and the last end.
void addHistory(cJSON* object, const LinkHistory::Figures& history) {
  addTime(object, "since", history.since);
  addCount(object, "lost", history.lost);
  JSONPtr losses(cJSON_CreateArray());
  for (const WallClock::time_point loss : history.losses) {
    const std::chrono::duration<double> seconds = loss.time_since_epoch();
    addElement(losses.get(), JSONPtr(cJSON_CreateNumber(seconds.count())));
  }
  addMember(object, "losses", std::move(losses));
  JSONPtr last(history.lastEnd ? cJSON_CreateObject() : cJSON_CreateNull());
  if (history.lastEnd) {
    cJSON_AddStringToObject(last.get(), "reason", history.lastEnd->reason.c_str());
    addTime(last.get(), "time", history.lastEnd->time);
  }
  addMember(object, "lastLoss", std::move(last));
}

JSONPtr roleObject(const ValtorInterfaceClient& client) {
  const auto role = client.role();
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "state", role.name);
  addTime(object.get(), "since", role.since);
  return object;
}

JSONPtr controllerObject(const ValtorInterfaceClient& client,
                         const PellInternalClient::Figures& figures) {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "name", "controller");
  cJSON_AddStringToObject(object.get(), "address", client.host().c_str());
  cJSON_AddNumberToObject(object.get(), "port", client.port());
  cJSON_AddStringToObject(object.get(), "state", figures.history.up ? "up" : "down");
  addHistory(object.get(), figures.history);
  addMember(object.get(), "toBus", traffic(figures.sent));
  addMember(object.get(), "fromBus", traffic(figures.received));
  return object;
}

// A router has no connection of its own while it was never enabled or names no usable place.
JSONPtr routerObject(const RouterDescription& router, const DispatcherPeerClient* peer) {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "name", router.name.c_str());
  cJSON_AddStringToObject(object.get(), "uniqueID", router.uniqueID.c_str());
  cJSON_AddStringToObject(object.get(), "address", router.address.c_str());
  cJSON_AddNumberToObject(object.get(), "port", router.port);
  cJSON_AddBoolToObject(object.get(), "enabled", router.enabled ? 1 : 0);
  PellInternalClient::Figures figures;
  figures.history.since = router.enabledSince;
  DispatcherPeerClient::BridgeFigures bridge;
  if (peer != nullptr) {
    figures = peer->figures();
    bridge = peer->bridgeFigures();
    if (!router.enabled && !figures.history.up) {
      figures.history.since = router.enabledSince;
    }
  }
  const char* const down = router.enabled ? "down" : "disabled";
  cJSON_AddStringToObject(object.get(), "state", figures.history.up ? "up" : down);
  addHistory(object.get(), figures.history);
  addMember(object.get(), "toRouter", bridged(figures.forwarded, bridge.blockedToPeer));
  addMember(object.get(), "fromRouter", bridged(bridge.toMaster, bridge.blockedToMaster));
  JSONPtr waiting(cJSON_CreateObject());
  addCount(waiting.get(), "frames", figures.waiting.frames);
  addCount(waiting.get(), "bytes", figures.waiting.bytes);
  addMember(object.get(), "waiting", std::move(waiting));
  addCount(object.get(), "dropped", figures.dropped);
  addCount(object.get(), "lostWithLink", figures.lostWithLink);
  cJSON_AddBoolToObject(object.get(), "stalled", figures.stalled ? 1 : 0);
  return object;
}

JSONPtr routersArray(const ValtorRouterPeerManager* manager) {
  JSONPtr array(cJSON_CreateArray());
  const auto peers =
      manager != nullptr ? manager->peers() : ValtorNodeConnectionPointManager::PeerList();
  for (const RouterDescription& router : describeRouters()) {
    const DispatcherPeerClient* found = nullptr;
    for (const auto& peer : peers) {
      if (peer->uniqueID() == router.uniqueID) {
        found = peer.get();
      }
    }
    addElement(array.get(), routerObject(router, found));
  }
  return array;
}

JSONPtr crossingArray(const Crossings& crossings) {
  JSONPtr array(cJSON_CreateArray());
  for (const Crossings::Figures& figures : crossings.figures()) {
    JSONPtr object = traffic(figures.traffic);
    const bool known = figures.kind != MessageKind::Unknown;
    if (known) {
      cJSON_AddStringToObject(
          object.get(), "direction",
          figures.direction == Direction::ToRouters ? "toRouters" : "toController");
    }
    cJSON_AddStringToObject(object.get(), "kind", known ? kindName(figures.kind) : "other");
    cJSON_AddStringToObject(object.get(), "path", figures.path.c_str());
    addElement(array.get(), std::move(object));
  }
  return array;
}

JSONPtr loopsObject(const LoopWatch& loops) {
  const LoopWatch::Figures figures = loops.figures();
  JSONPtr object(cJSON_CreateObject());
  addCount(object.get(), "episodes", figures.episodes);
  JSONPtr last(figures.last ? cJSON_CreateObject() : cJSON_CreateNull());
  if (figures.last) {
    cJSON_AddStringToObject(last.get(), "kind", kindName(figures.last->kind));
    cJSON_AddStringToObject(last.get(), "path", figures.last->path.c_str());
    cJSON_AddStringToObject(last.get(), "from", figures.last->from.c_str());
    cJSON_AddStringToObject(last.get(), "to", figures.last->to.c_str());
    addTime(last.get(), "time", figures.last->time);
  }
  addMember(object.get(), "last", std::move(last));
  return object;
}

JSONPtr queueObject(const ReceiveQueue::Figures& queue) {
  const std::chrono::duration<double, std::milli> delay = queue.delay;
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddNumberToObject(object.get(), "delayMs", delay.count());
  addCount(object.get(), "chunks", queue.chunks);
  addCount(object.get(), "bytes", queue.bytes);
  return object;
}

// What the process holds in memory, in bytes (proc(5), "/proc/[pid]/statm"); 0 when unknown.
double residentBytes() {
  std::ifstream file("/proc/self/statm");
  double size = 0;
  double resident = 0;
  file >> size >> resident;
  return file ? resident * static_cast<double>(sysconf(_SC_PAGESIZE)) : 0;
}

}  // namespace

std::string statusDocument(const ValtorInterfaceClient& client) {
  const auto manager = routerPeerManager();
  const PellInternalClient::Figures figures = client.figures();
  const JSONPtr document(cJSON_CreateObject());
  cJSON_AddStringToObject(document.get(), "version", VALTOR_VERSION);
  addTime(document.get(), "startTime", kStart);
  addTime(document.get(), "now", WallClock::now());
  cJSON_AddNumberToObject(document.get(), "pid", getpid());
  addMember(document.get(), "role", roleObject(client));
  addMember(document.get(), "controller", controllerObject(client, figures));
  addMember(document.get(), "routers", routersArray(manager.get()));
  if (manager != nullptr) {
    addMember(document.get(), "crossing", crossingArray(manager->watch().crossings));
    addMember(document.get(), "loops", loopsObject(manager->watch().loops));
  }
  addMember(document.get(), "localQueue", queueObject(figures.queue));
  addCount(document.get(), "unsavedFiles", countUnsavedFiles());
  JSONPtr warnings(cJSON_CreateObject());
  for (const WarningCount& warning : warningCounts()) {
    addCount(warnings.get(), warning.name, warning.count);
  }
  addMember(document.get(), "warnings", std::move(warnings));
  JSONPtr memory(cJSON_CreateObject());
  cJSON_AddNumberToObject(memory.get(), "residentBytes", residentBytes());
  const struct mallinfo2 heap = mallinfo2();
  addCount(memory.get(), "allocatedBytes", heap.uordblks + heap.hblkhd);
  addMember(document.get(), "memory", std::move(memory));
  std::string text = printJSON(document.get(), false) + '\n';
  requireWholeJSON();
  return text;
}

}  // namespace valtor
