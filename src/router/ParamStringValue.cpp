#include "router/ParamStringValue.h"

namespace valtor {

int ParamStringValue::loadFromJSON(const cJSON* item) {
  if (item == nullptr) {
    return -1;
  }
  const char* value = cJSON_GetStringValue(item);
  if (value != nullptr) {
    text = value;
  }
  isNull = value == nullptr || text.empty();
  return 0;
}

JSONPtr ParamStringValue::toJSON() const {
  return JSONPtr(isNull ? cJSON_CreateNumber(0) : cJSON_CreateString(text.c_str()));
}

}  // namespace valtor
