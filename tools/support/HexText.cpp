#include "support/HexText.h"

#include <algorithm>
#include <charconv>

namespace valtor {

std::string hexText(std::string_view bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += kDigits[value >> 4U];
    text += kDigits[value & 0xfU];
  }
  return text;
}

std::optional<std::string> bytesOfHex(std::string_view text) {
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); at += 2) {
    unsigned value = 0;
    const char* end = text.data() + std::min(at + 2, text.size());
    if (std::from_chars(text.data() + at, end, value, 16).ptr != text.data() + at + 2) {
      return std::nullopt;
    }
    bytes += static_cast<char>(value);
  }
  return bytes;
}

}  // namespace valtor
