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
// "12:34:56", behind the date when that was not today.
std::string sinceText(WallTime time);
// Seconds since the epoch as a time.
WallTime wallTime(double seconds);

// One line about a message, without a line feed: time, kind, path, source and destination, body.
// The body is cut after as many characters as the width says, unless that is 0.
std::string messageLine(const PellInternalMessage& message, WallTime time, bool colour,
                        std::size_t width);

// The header's schedule element as JSON; "" when it is 0 or not there.
std::string scheduleOf(const PellInternalMessage& message);
// The body as it came; "" when there is none.
std::string bodyTextOf(const PellInternalMessage& message);

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

  bool accepts(const PellInternalHeader& header) const;
};

}  // namespace valtor
