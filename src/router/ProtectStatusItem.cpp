#include "router/ProtectStatusItem.h"

#include "router/ArrayElements.h"

namespace valtor {

int ProtectStatusItem::loadFromJSON(const cJSON* item) {
  if (item == nullptr) {
    return -1;
  }
  if (item->child == nullptr) {
    if (item->valueint != 0) {
      return -1;
    }
    status = kNone;
    device = 0;
    return 0;
  }
  if (!isPair(item)) {
    return -1;
  }
  const std::int32_t loaded = firstElement(item)->valueint;
  if (loaded > kLock) {
    status = kNone;
    device = 0;
    return -1;
  }
  status = loaded;
  device = secondElement(item)->valueint;
  return 0;
}

JSONPtr ProtectStatusItem::toJSON() const {
  if (status == kNone) {
    return makeNumber(kNone);
  }
  return makePair(makeNumber(status), makeNumber(device));
}

}  // namespace valtor
