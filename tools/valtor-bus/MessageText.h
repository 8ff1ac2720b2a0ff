#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "bus/message/PellInternalMessage.h"

namespace valtor {

using WallTime = std::chrono::system_clock::time_point;

// Local time of day, "12:34:56.789".
std::string timeOfDay(WallTime time);
// "2026-01-31T12:34:56.789+0100".
std::string fullTime(WallTime time);

// One line about a message, without a line feed: time, kind, path, source and destination, body.
std::string messageLine(const PellInternalMessage& message, WallTime time, bool colour);

// One JSON object with "time", "kind", "path", "source", "destination" (and "sourceName",
// "destinationName", "schedule" when the header has them) and "body": the body with every number as
// it was spelt, the text of one that is no JSON, or null when there is none.
std::string messageJSON(const PellInternalMessage& message, WallTime time);

// Which messages are wanted. A list without entries lets everything through.
struct MessageFilter {
  std::vector<std::string> paths;  // literal, or the start of a path and "*"
  std::vector<MessageKind> kinds;
  std::vector<int32_t> sources;
  std::vector<int32_t> destinations;

  bool accepts(const PellInternalMessage& message) const;
};

}  // namespace valtor
