#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace valtor {

// The number that the whole text is, in decimal digits; none for anything else and for one that
// does not fit.
template <class Number>
std::optional<Number> wholeNumber(std::string_view text) {
  Number number{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end ? std::optional<Number>(number) : std::nullopt;
}

}  // namespace valtor
