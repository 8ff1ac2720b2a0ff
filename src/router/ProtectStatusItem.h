#pragma once

#include <cstdint>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// Whether one destination is protected or locked, and by which control device, so that other users
// cannot change its route. The JSON form is 0 when it is not, otherwise [status, device]. A plain
// value without a lock.
class ProtectStatusItem : public AbstractJSONBackedData {
 public:
  static constexpr std::int32_t kNone = 0;
  static constexpr std::int32_t kProtect = 1;
  static constexpr std::int32_t kLock = 2;

  // An array of anything but two elements, or a number that is not 0, gives -1 and changes
  // nothing. A status above kLock gives -1 and leaves the item unprotected; one below kNone is
  // taken as it is.
  int loadFromJSON(const cJSON* item) override;
  JSONPtr toJSON() const override;

  std::int32_t status = kNone;
  // The number of the device that holds the protect or lock.
  std::int32_t device = 0;
  // Carried and copied; no part of the JSON form.
  std::int32_t reserved = -1;
};

}  // namespace valtor
