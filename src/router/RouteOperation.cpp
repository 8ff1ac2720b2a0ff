#include "router/RouteOperation.h"

#include <stdexcept>
#include <syslog.h>
#include <utility>

#include "router/ArrayElements.h"

namespace valtor {

RouteOperation::RouteOperation(std::int32_t destination_, const LevelMask& level_)
    : destination{destination_}, level(level_) {}

RouteOperation::RouteOperation(std::int32_t destination_, const LevelMask& level_,
                               std::int32_t source, bool machineControl_)
    : destination{destination_},
      machineControl(machineControl_),
      level(level_),
      status(static_cast<std::uint32_t>(destination_), source) {}

RouteOperation::RouteOperation(std::int32_t destination_, const std::vector<unsigned>& levels,
                               const std::vector<std::int32_t>& sources)
    : destination{destination_}, level(levels) {
  if (levels.size() != sources.size()) {
    syslog(LOG_WARNING, "RouteOperation parameter mismatch, num levels=%zu, num sources=%zu\n",
           levels.size(), sources.size());
  }
  status.entries.push_back({static_cast<std::uint32_t>(destination_), sources});
}

RouteOperation::RouteOperation(std::int32_t destination_, const LevelMask& level_,
                               const ProtectStatusItem& item)
    : destination{destination_}, level(level_), protect(destination_, item) {
  if (destination_ < 0) {
    throw std::runtime_error("destination < 0");
  }
}

int RouteOperation::loadFromJSON(const cJSON* item) {
  loadDestinations(item);
  const cJSON* levels = cJSON_GetObjectItem(item, "level");
  if (levels == nullptr) {
    return -1;
  }
  level.addLevels(levels);
  machineControl = cJSON_IsTrue(cJSON_GetObjectItem(item, "machineControl")) != 0;
  int result = 0;
  if (const cJSON* entries = cJSON_GetObjectItem(item, "status"); entries != nullptr) {
    result = status.loadFromJSON(entries);
  }
  if (const cJSON* entries = cJSON_GetObjectItem(item, "protect"); entries != nullptr) {
    result = protect.loadFromJSON(entries);
  }
  if (const cJSON* user = cJSON_GetObjectItem(item, "userID"); user != nullptr) {
    setUserID(user->valueint);
  }
  return result;
}

// A range that is no pair of ascending non-negative numbers is ignored.
void RouteOperation::loadDestinations(const cJSON* item) {
  appendIntegers(cJSON_GetObjectItem(item, "destination"), destination);
  const cJSON* range = cJSON_GetObjectItem(item, "destRange");
  if (!isPair(range)) {
    return;
  }
  const int first = firstElement(range)->valueint;
  const int last = secondElement(range)->valueint;
  if (first >= 0 && last >= first) {
    hasDestRange = true;
    destRangeFirst = static_cast<std::uint32_t>(first);
    destRangeLast = static_cast<std::uint32_t>(last);
  }
}

JSONPtr RouteOperation::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  if (!level.isEmpty()) {
    addMember(object.get(), "level", level.toJSON());
  }
  if (status.isEmpty() && protect.isEmpty()) {
    addDestinations(object.get());
  }
  if (machineControl) {
    cJSON_AddBoolToObject(object.get(), "machineControl", 1);
  }
  if (!status.isEmpty()) {
    addMember(object.get(), "status", status.toJSON());
  }
  if (!protect.isEmpty()) {
    addMember(object.get(), "protect", protect.toJSON());
  }
  if (hasUserID) {
    cJSON_AddNumberToObject(object.get(), "userID", userID);
  }
  if (!sessionID.empty()) {
    cJSON_AddStringToObject(object.get(), "sessionID", sessionID.c_str());
  }
  return object;
}

void RouteOperation::addDestinations(cJSON* object) const {
  if (hasDestRange) {
    addMember(object, "destRange", makePair(makeNumber(destRangeFirst), makeNumber(destRangeLast)));
  } else if (!destination.empty()) {
    addMember(object, "destination", makeIntegers(destination));
  }
}

std::vector<RouteOperation> RouteOperation::loadList(const cJSON* array) {
  std::vector<RouteOperation> operations;
  for (const cJSON* element = firstElement(array); element != nullptr; element = element->next) {
    RouteOperation operation;
    if (operation.loadFromJSON(element) != 0) {
      throw std::runtime_error("RouteOperation load error");
    }
    operations.push_back(std::move(operation));
  }
  return operations;
}

}  // namespace valtor
