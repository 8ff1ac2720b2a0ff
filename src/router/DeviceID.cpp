#include "router/DeviceID.h"

namespace valtor {

int DeviceID::loadFromJSON(const cJSON* item) {
  const char* text = cJSON_GetStringValue(item);
  if (text == nullptr) {
    return -1;
  }
  name = text;
  return 0;
}

JSONPtr DeviceID::toJSON() const { return JSONPtr(cJSON_CreateString(name.c_str())); }

}  // namespace valtor
