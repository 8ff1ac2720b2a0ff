#include "valtor-status/StatusFigures.h"

#include "app/util/OwnedJSON.h"

namespace valtor {
namespace {

const cJSON* part(const cJSON* object, const char* name) {
  return cJSON_GetObjectItem(object, name);
}

std::string text(const cJSON* object, const char* name) {
  const char* value = stringMember(object, name);
  return value != nullptr ? value : "";
}

double number(const cJSON* object, const char* name) {
  const cJSON* member = part(object, name);
  return cJSON_IsNumber(member) != 0 ? member->valuedouble : 0;
}

// By kind or rule. The daemon has some dozens; more would multiply what is shown of each router.
std::vector<std::pair<std::string, double>> counts(const cJSON* object) {
  constexpr std::size_t kMost = 64;
  std::vector<std::pair<std::string, double>> list;
  const cJSON* member = nullptr;
  cJSON_ArrayForEach(member, object) {
    if (list.size() < kMost && cJSON_IsNumber(member) != 0 && member->string != nullptr) {
      list.emplace_back(member->string, member->valuedouble);
    }
  }
  return list;
}

StatusFigures::Traffic traffic(const cJSON* object) {
  return {number(object, "messages"), number(object, "bytes"), number(object, "blocked"),
          counts(part(object, "rules"))};
}

StatusFigures::Link link(const cJSON* object) {
  StatusFigures::Link link;
  link.state = text(object, "state");
  link.lost = number(object, "lost");
  const cJSON* time = nullptr;
  cJSON_ArrayForEach(time, arrayMember(object, "losses")) {
    if (cJSON_IsNumber(time) != 0) {
      link.losses.push_back(time->valuedouble);
    }
  }
  link.lossReason = text(part(object, "lastLoss"), "reason");
  return link;
}

StatusFigures::Router router(const cJSON* object) {
  StatusFigures::Router router;
  router.uniqueID = text(object, "uniqueID");
  router.name = text(object, "name");
  router.link = link(object);
  router.stalled = cJSON_IsTrue(part(object, "stalled")) != 0;
  router.toRouter = traffic(part(object, "toRouter"));
  router.fromRouter = traffic(part(object, "fromRouter"));
  router.waitingFrames = number(part(object, "waiting"), "frames");
  router.waitingBytes = number(part(object, "waiting"), "bytes");
  router.dropped = number(object, "dropped");
  router.lostWithLink = number(object, "lostWithLink");
  return router;
}

std::string loopText(const cJSON* loop) {
  return cJSON_IsObject(loop) == 0
             ? ""
             : text(loop, "kind") + " on \"" + text(loop, "path") + "\" from " +
                   text(loop, "from") + " to " + text(loop, "to");
}

}  // namespace

std::optional<StatusFigures> StatusFigures::of(const std::string& document) {
  const OwnedJSON tree = parseJSON(document);
  const cJSON* const root = tree.get();
  if (cJSON_IsObject(root) == 0 || cJSON_IsNumber(part(root, "startTime")) == 0) {
    return std::nullopt;
  }
  const cJSON* const controller = part(root, "controller");
  StatusFigures figures;
  figures.version = text(root, "version");
  figures.startTime = number(root, "startTime");
  figures.now = number(root, "now");
  figures.role = text(part(root, "role"), "state");
  figures.controller = link(controller);
  figures.toBus = traffic(part(controller, "toBus"));
  figures.fromBus = traffic(part(controller, "fromBus"));
  const cJSON* item = nullptr;
  cJSON_ArrayForEach(item, arrayMember(root, "routers")) {
    if (cJSON_IsString(part(item, "uniqueID")) != 0) {  // nobody could tell the others apart
      figures.routers.push_back(router(item));
    }
  }
  cJSON_ArrayForEach(item, arrayMember(root, "crossing")) {
    if (cJSON_IsObject(item) != 0) {
      figures.crossing.push_back({text(item, "direction"), text(item, "kind"), text(item, "path"),
                                  number(item, "messages"), number(item, "bytes")});
    }
  }
  figures.loopEpisodes = number(part(root, "loops"), "episodes");
  figures.lastLoop = loopText(part(part(root, "loops"), "last"));
  figures.queueDelay = number(part(root, "localQueue"), "delayMs") / 1000;
  figures.unsavedFiles = number(root, "unsavedFiles");
  figures.warnings = counts(part(root, "warnings"));
  figures.residentBytes = number(part(root, "memory"), "residentBytes");
  figures.allocatedBytes = number(part(root, "memory"), "allocatedBytes");
  return figures;
}

}  // namespace valtor
