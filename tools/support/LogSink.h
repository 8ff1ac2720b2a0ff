#pragma once

#include <string>

namespace valtor {

// For tools and tests, whose libraries log with syslog: linked into an executable, this takes the
// place of the C library's syslog, so that nothing reaches the system's log. The text, as it was
// formatted, goes to the function instead; as long as none is set it is dropped.

// The priority is what syslog was given; a facility may be in it (see LOG_PRI in syslog(3)). Called
// on whatever thread logs.
using LogSink = void (*)(int priority, const std::string& text);

// Before other threads start.
void setLogSink(LogSink sink);

// The text without the line feeds at its end, for a line of one's own.
std::string withoutLineFeeds(const std::string& text);

}  // namespace valtor
