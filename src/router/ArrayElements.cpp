#include "router/ArrayElements.h"

#include <utility>

namespace valtor {

const cJSON* firstElement(const cJSON* item) { return cJSON_IsArray(item) ? item->child : nullptr; }

const cJSON* secondElement(const cJSON* item) {
  const cJSON* first = firstElement(item);
  return first != nullptr ? first->next : nullptr;
}

bool isPair(const cJSON* item) {
  const cJSON* second = secondElement(item);
  return second != nullptr && second->next == nullptr;
}

void appendIntegers(const cJSON* item, std::vector<std::int32_t>& numbers) {
  for (const cJSON* element = firstElement(item); element != nullptr; element = element->next) {
    numbers.push_back(element->valueint);
  }
}

JSONPtr makeNumber(double number) { return JSONPtr(cJSON_CreateNumber(number)); }

JSONPtr makeIntegers(const std::vector<std::int32_t>& numbers) {
  JSONPtr array(cJSON_CreateArray());
  for (const std::int32_t number : numbers) {
    addElement(array.get(), makeNumber(number));
  }
  return array;
}

JSONPtr makePair(JSONPtr first, JSONPtr second) {
  JSONPtr array(cJSON_CreateArray());
  addElement(array.get(), std::move(first));
  addElement(array.get(), std::move(second));
  return array;
}

}  // namespace valtor
