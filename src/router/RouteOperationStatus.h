#pragma once

#include <cstdint>
#include <vector>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The destinations of a route operation with the sources that feed them. The JSON form is an array
// of [destination, [source, ...]] elements. A plain value without a lock.
class RouteOperationStatus : public AbstractJSONBackedData {
 public:
  struct Entry {
    std::uint32_t destination = 0;
    // Either one source for every level of the operation's mask, or one per set level of that
    // mask, in ascending level order.
    std::vector<std::int32_t> sources;
  };

  RouteOperationStatus() = default;
  // One entry with one source.
  RouteOperationStatus(std::uint32_t destination, std::int32_t source);

  // Appends an entry for every element that has a destination and at least one source; other
  // elements are skipped. 0 when something was appended, else -1.
  int loadFromJSON(const cJSON* item) override;
  JSONPtr toJSON() const override;

  bool isEmpty() const { return entries.empty(); }

  std::vector<Entry> entries;
};

}  // namespace valtor
