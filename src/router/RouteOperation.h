#pragma once

#include <cstdint>
#include <vector>

#include "router/AbstractOperation.h"
#include "router/LevelMask.h"
#include "router/ProtectStatusArray.h"
#include "router/RouteOperationStatus.h"

namespace valtor {

// One request to, or report from, a router: which destinations on which levels, the sources that
// feed them, the protection that holds them, and who asked. A plain copyable value without a lock;
// the fields are read and written directly by the code that builds operations. Destinations stand
// either in the list or, when hasDestRange is set, in the inclusive range.
class RouteOperation : public AbstractOperation {
 public:
  RouteOperation() = default;
  RouteOperation(std::int32_t destination, const LevelMask& level);
  RouteOperation(std::int32_t destination, const LevelMask& level, std::int32_t source,
                 bool machineControl);
  // One source per level, in ascending level order. Lists of different lengths are taken as they
  // are, with a warning.
  RouteOperation(std::int32_t destination, const std::vector<unsigned>& levels,
                 const std::vector<std::int32_t>& sources);
  // Throws std::runtime_error for a destination below 0.
  RouteOperation(std::int32_t destination, const LevelMask& level, const ProtectStatusItem& item);

  // Adds to the destinations, levels, status and protect entries already held. -1 without a
  // "level" (destinations are taken over even then), otherwise what the protect entries' load, or
  // in its absence the status entries' load, returned; 0 with neither. A session ID is not read.
  int loadFromJSON(const cJSON* item) override;
  // Writes the destinations only when there are neither status nor protect entries, which name
  // their own.
  JSONPtr toJSON() const override;

  // One operation per element of the array, in order; none for an item that is no array. Throws
  // std::runtime_error when an element does not load.
  static std::vector<RouteOperation> loadList(const cJSON* array);

  // Carried and copied; no operation reads it. The same holds for reservedLast.
  std::int32_t reservedFirst = 0;
  std::vector<std::int32_t> destination;
  bool machineControl = false;
  LevelMask level;
  RouteOperationStatus status;
  ProtectStatusArray protect;
  std::int32_t reservedLast = 0;
  bool hasDestRange = false;
  std::uint32_t destRangeFirst = 0;
  std::uint32_t destRangeLast = 0;

 private:
  void loadDestinations(const cJSON* item);
  void addDestinations(cJSON* object) const;
};

}  // namespace valtor
