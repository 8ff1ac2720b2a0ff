#pragma once

#include <string>

namespace valtor {

// For a tool whose libraries log with syslog: linked into an executable, this takes the place of
// the C library's syslog, so that nothing of a tool reaches the system's log. A line, without its
// line feed, goes to the function instead; as long as none is set it is dropped.

// The priority is one of syslog's, LOG_EMERG to LOG_DEBUG. Called on whatever thread logs.
using LogSink = void (*)(int priority, const std::string& line);

// Before other threads start.
void setLogSink(LogSink sink);

}  // namespace valtor
