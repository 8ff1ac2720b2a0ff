#include "connections/DeviceConnectionDetails.h"

#include <utility>

namespace valtor {

namespace {

// The text of a member; without one the value stays. Whether there was one.
bool takeText(const cJSON* item, const char* name, std::string& value) {
  const char* text = stringMember(item, name);
  if (text == nullptr) {
    return false;
  }
  value = text;
  return true;
}

}  // namespace

DeviceConnectionDetails::DeviceConnectionDetails(std::string connectionPoint, std::string uniqueID,
                                                 std::string family, std::string type,
                                                 std::string name)
    : connectionPoint_(std::move(connectionPoint)),
      uniqueID_(std::move(uniqueID)),
      family_(std::move(family)),
      type_(std::move(type)),
      name_(std::move(name)) {}

int DeviceConnectionDetails::loadFromJSON(const cJSON* item) {
  // Every member is taken over, also behind one that is missing.
  bool complete = takeText(item, "type", type_);
  complete = takeText(item, "name", name_) && complete;
  complete = takeText(item, "uniqueID", uniqueID_) && complete;
  takeText(item, "family", family_);
  complete = takeText(item, "connectionPoint", connectionPoint_) && complete;
  if (const cJSON* details = cJSON_GetObjectItem(item, "details"); details != nullptr) {
    details_ = printJSON(details, false);
  }
  setValid(complete);
  return complete ? 0 : -1;
}

JSONPtr DeviceConnectionDetails::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "type", type_.c_str());
  cJSON_AddStringToObject(object.get(), "family", family_.c_str());
  cJSON_AddStringToObject(object.get(), "name", name_.c_str());
  cJSON_AddStringToObject(object.get(), "uniqueID", uniqueID_.c_str());
  cJSON_AddStringToObject(object.get(), "connectionPoint", connectionPoint_.c_str());
  if (!details_.empty()) {
    addMember(object.get(), "details", JSONPtr(cJSON_Parse(details_.c_str())));
  }
  return object;
}

}  // namespace valtor
