#include "router/RouteOperationStatus.h"

#include <utility>

#include "router/ArrayElements.h"

namespace valtor {

RouteOperationStatus::RouteOperationStatus(std::uint32_t destination, std::int32_t source)
    : entries{{destination, {source}}} {}

int RouteOperationStatus::loadFromJSON(const cJSON* item) {
  int result = -1;
  for (const cJSON* element = firstElement(item); element != nullptr; element = element->next) {
    const cJSON* destination = firstElement(element);
    if (destination == nullptr) {
      continue;
    }
    Entry entry;
    entry.destination = static_cast<std::uint32_t>(destination->valueint);
    appendIntegers(secondElement(element), entry.sources);
    if (!entry.sources.empty()) {
      entries.push_back(std::move(entry));
      result = 0;
    }
  }
  return result;
}

JSONPtr RouteOperationStatus::toJSON() const {
  JSONPtr array(cJSON_CreateArray());
  for (const Entry& entry : entries) {
    addElement(array.get(), makePair(makeNumber(entry.destination), makeIntegers(entry.sources)));
  }
  return array;
}

}  // namespace valtor
