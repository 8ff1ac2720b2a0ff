#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace valtor {

// JSON and text for people and scripts. Unlike the trees of the message classes these keep the
// spelling of numbers, so that what is shown or sent has every digit. Pure functions, any thread.

// The text without white space between its parts; none when it is not valid JSON in valid UTF-8.
std::optional<std::string> compactJSON(const std::string& text);

// The text with each byte that belongs to no UTF-8 character replaced by U+FFFD.
std::string withoutBrokenUtf8(std::string_view text);

// A JSON string, with its quotes.
std::string quotedJSON(std::string_view text);

// For one line of a terminal: valid UTF-8, and blanks for whatever would move the cursor or worse.
std::string printable(std::string_view text);

}  // namespace valtor
