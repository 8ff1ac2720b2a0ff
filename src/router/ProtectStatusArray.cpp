#include "router/ProtectStatusArray.h"

#include <utility>

#include "router/ArrayElements.h"

namespace valtor {

ProtectStatusArray::ProtectStatusArray(std::int32_t destination, const ProtectStatusItem& item)
    : items{{destination, {item}}} {}

int ProtectStatusArray::loadFromJSON(const cJSON* item) {
  int result = -1;
  for (const cJSON* element = firstElement(item); element != nullptr; element = element->next) {
    std::vector<ProtectStatusItem> loaded;
    for (const cJSON* part = firstElement(secondElement(element)); part != nullptr;
         part = part->next) {
      // Each stands for one level, so one that does not load keeps its place.
      loaded.emplace_back().loadFromJSON(part);
    }
    if (!loaded.empty()) {
      items[firstElement(element)->valueint] = std::move(loaded);
      result = 0;
    }
  }
  return result;
}

JSONPtr ProtectStatusArray::toJSON() const {
  JSONPtr array(cJSON_CreateArray());
  for (const auto& [destination, list] : items) {
    JSONPtr rendered(cJSON_CreateArray());
    for (const ProtectStatusItem& item : list) {
      addElement(rendered.get(), item.toJSON());
    }
    addElement(array.get(),
               makePair(makeNumber(static_cast<std::uint32_t>(destination)), std::move(rendered)));
  }
  return array;
}

}  // namespace valtor
