#pragma once

#include <string>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The value of a device parameter: a text that may be absent. The JSON form is the text, or the
// number 0 when it is absent. A plain value without a lock.
class ParamStringValue : public AbstractJSONBackedData {
 public:
  // A string sets the text and is null when empty. Any other item makes the value null and leaves
  // the text. -1 only for a missing item.
  int loadFromJSON(const cJSON* item) override;
  JSONPtr toJSON() const override;
  // The text, also when the value is null.
  std::string toString() const override { return text; }

  std::string text;
  bool isNull = true;
};

}  // namespace valtor
