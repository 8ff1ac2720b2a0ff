#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace valtor {

// The system's text for an errno value, as strerror gives it. Any thread may call it.
std::string errnoText(int error);

// At most 64 KiB of a payload, for a log line that quotes it: a larger datagram is refused by the
// log socket and the whole line would be lost.
std::string quotedForLog(const char* text);

// At most 1 KiB of a name that came over the bus or from a file, for a line that holds several.
std::string nameForLog(const std::string& name);

// The beginning of a text: at most so many bytes, without half a character at the end (UTF-8,
// RFC 3629).
std::string_view cutText(std::string_view text, std::size_t most);

}  // namespace valtor
