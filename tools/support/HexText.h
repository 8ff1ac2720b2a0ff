#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace valtor {

// Bytes as pairs of hexadecimal digits, in lower case. Pure functions, any thread.
std::string hexText(std::string_view bytes);
// The bytes of such digits in either case; none for anything but pairs of digits.
std::optional<std::string> bytesOfHex(std::string_view text);

}  // namespace valtor
