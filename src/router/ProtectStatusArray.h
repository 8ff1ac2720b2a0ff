#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "data/AbstractJSONBackedData.h"
#include "router/ProtectStatusItem.h"

namespace valtor {

// The protect state of a route operation's destinations. The JSON form is an array of
// [destination, [item, ...]] elements in ascending destination order. A plain value without a lock.
class ProtectStatusArray : public AbstractJSONBackedData {
 public:
  ProtectStatusArray() = default;
  // One destination with one item.
  ProtectStatusArray(std::int32_t destination, const ProtectStatusItem& item);

  // Stores the items of every element that has a destination and at least one item, in place of
  // those already held for that destination; other elements are skipped. An item that does not load
  // stays in its place as an unprotected one. 0 when something was stored, else -1.
  int loadFromJSON(const cJSON* item) override;
  JSONPtr toJSON() const override;

  bool isEmpty() const { return items.empty(); }

  // By destination. Either one item for every level of the operation's mask, or one per set level
  // of that mask, in ascending level order.
  std::map<std::int32_t, std::vector<ProtectStatusItem>> items;
};

}  // namespace valtor
