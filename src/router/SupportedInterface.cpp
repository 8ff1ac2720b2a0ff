#include "router/SupportedInterface.h"

#include <cmath>
#include <utility>

namespace valtor {
namespace {

JSONPtr duplicate(const cJSON* item) { return JSONPtr(cJSON_Duplicate(item, 1)); }

}  // namespace

SupportedInterface::SupportedInterface(std::string name, double version, JSONPtr details)
    : name_(std::move(name)), version_(version), details_(std::move(details)) {}

SupportedInterface::SupportedInterface(const SupportedInterface& other)
    : AbstractJSONBackedData(other),
      name_(other.name_),
      version_(other.version_),
      details_(duplicate(other.details_.get())) {}

SupportedInterface& SupportedInterface::operator=(const SupportedInterface& other) {
  if (this != &other) {
    *this = SupportedInterface(other);
  }
  return *this;
}

SupportedInterface::~SupportedInterface() = default;

int SupportedInterface::loadFromJSON(const cJSON* item) {
  const char* name = stringMember(item, "name");
  if (name == nullptr) {
    return -1;
  }
  name_ = name;
  const cJSON* version = cJSON_GetObjectItem(item, "version");
  if (version == nullptr) {
    return -1;
  }
  // What no double holds would render as null, and that loads as 0.
  version_ = std::isfinite(version->valuedouble) ? version->valuedouble : 0;
  if (const cJSON* details = cJSON_GetObjectItem(item, "details"); details != nullptr) {
    details_ = duplicate(details);
  }
  return 0;
}

JSONPtr SupportedInterface::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "name", name_.c_str());
  cJSON_AddNumberToObject(object.get(), "version", version_);
  if (details_) {
    addMember(object.get(), "details", duplicate(details_.get()));
  }
  return object;
}

}  // namespace valtor
