#pragma once

#include <cjson/cJSON.h>

#include "bus/message/HeaderLine.h"

namespace valtor {

// Reads the schedule time of a message, the fifth element of its header line: an absolute local
// date and time, a time of day, or "+" and an offset from now (strptime formats %FT%T and %T, then
// optionally "." and milliseconds as strtol reads them with base 0). Stores it in the header and
// returns true when it lies in the future; otherwise the header stays as it was. The element may be
// null. Logs its own failures. Any thread may call it.
bool parseScheduledTime(PellInternalHeader& header, const cJSON* element);

}  // namespace valtor
