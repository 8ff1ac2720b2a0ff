#include "router/DeviceParam.h"

namespace valtor {

int DeviceParam::loadFromJSON(const cJSON* member) {
  if (member == nullptr || member->string == nullptr) {
    return -1;
  }
  oid.param = member->string;
  return value.loadFromJSON(member);
}

JSONPtr DeviceParam::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  addMember(object.get(), oid.param.c_str(), value.toJSON());
  return object;
}

std::string DeviceParam::toString() const {
  return "oid:" + oid.toString() + ", value:" + value.text + ", complete:" + (complete ? "1" : "0");
}

}  // namespace valtor
