#include "router/ParamOID.h"

#include <stdexcept>

namespace valtor {

ParamOID::ParamOID(const std::string& text) {
  const std::string::size_type firstPoint = text.find('.');
  if (firstPoint == std::string::npos) {
    throw std::runtime_error("ParamOID invalid constructor string: " + text);
  }
  parse(text, firstPoint);
}

int ParamOID::loadFromJSON(const cJSON* item) {
  const char* value = cJSON_GetStringValue(item);
  const std::string text = value != nullptr ? value : "";
  const std::string::size_type firstPoint = text.find('.');
  if (firstPoint == std::string::npos) {
    return -1;
  }
  parse(text, firstPoint);
  return 0;
}

void ParamOID::parse(const std::string& text, std::string::size_type firstPoint) {
  device = DeviceID(text.substr(0, firstPoint));
  param = text.substr(firstPoint + 1);
  absent = false;
  // Without a point rfind gives npos: substr then takes all, and npos + 1 is the text's start.
  const std::string parent = param.substr(0, param.rfind('.'));
  group = parent.substr(parent.rfind('.') + 1);
}

JSONPtr ParamOID::toJSON() const {
  return JSONPtr(absent ? cJSON_CreateNumber(0) : cJSON_CreateString(toString().c_str()));
}

std::string ParamOID::toString() const { return device.name + "." + param; }

bool ParamOID::matches(const ParamOID& other) const {
  return param == other.param &&
         (device.name == other.device.name || other.device.name == kTielineDevice);
}

}  // namespace valtor
