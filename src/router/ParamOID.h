#pragma once

#include <string>

#include "data/AbstractJSONBackedData.h"
#include "router/DeviceID.h"

namespace valtor {

// The address of a device parameter: a device name, a "." and a parameter path. The JSON form is
// that text, or the number 0 while no identifier was parsed. A plain value without a lock.
class ParamOID : public AbstractJSONBackedData {
 public:
  ParamOID() = default;
  // Parses a text that holds a "."; throws std::runtime_error for any other.
  explicit ParamOID(const std::string& text);

  // Parses a string that holds a "."; anything else gives -1 and changes nothing.
  int loadFromJSON(const cJSON* item) override;
  JSONPtr toJSON() const override;
  // The text form.
  std::string toString() const override;

  // Whether the paths are equal and the devices too. A "tieline" as the other's device stands for
  // every device; not so the other way round.
  bool matches(const ParamOID& other) const;

  DeviceID device;
  // The path: everything after the first ".".
  std::string param;
  // The path's component before the last one; the path itself when it has only one.
  std::string group;
  // True until an identifier was parsed; setting the fields does not change it.
  bool absent = true;

 private:
  void parse(const std::string& text, std::string::size_type firstPoint);
};

// The device name that stands for every device when parameters are matched.
inline constexpr const char* kTielineDevice = "tieline";

}  // namespace valtor
