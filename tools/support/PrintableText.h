#pragma once

#include <string>
#include <string_view>

namespace valtor {

// Text from the bus for a person's terminal. Pure functions, any thread.

// Whether a byte of valid UTF-8, behind the byte before it, ends a control character: those below a
// blank, U+007F and U+0080 to U+009F.
bool isControl(unsigned char byte, unsigned char before);

// How many bytes the character takes that begins there, if it is one that overrides the direction
// of writing, so that text on a terminal reads otherwise than it is: U+061C, U+200E, U+200F, U+202A
// to U+202E, U+2066 to U+2069. 0 for any other.
std::size_t directionControlAt(std::string_view text, std::size_t at);

// The text with each byte that belongs to no UTF-8 character replaced by U+FFFD.
std::string withoutBrokenUtf8(std::string_view text);

// For one line of a terminal: valid UTF-8, and blanks for whatever would move the cursor or worse,
// directions of writing included.
std::string printable(std::string_view text);

}  // namespace valtor
