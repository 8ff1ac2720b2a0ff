#pragma once

#include <string>
#include <utility>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The identity of a device by its name. The JSON form is a bare string. A plain value without a
// lock.
class DeviceID : public AbstractJSONBackedData {
 public:
  explicit DeviceID(std::string text = {}) : name(std::move(text)) {}

  // 0 for a string; otherwise -1, and the name stays.
  int loadFromJSON(const cJSON* item) override;
  JSONPtr toJSON() const override;

  std::string name;
};

}  // namespace valtor
