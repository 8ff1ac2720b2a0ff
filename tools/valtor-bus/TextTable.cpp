#include "valtor-bus/TextTable.h"

#include <algorithm>

namespace valtor {
namespace {

constexpr const char* kPlain = "\x1b[0m";

// In characters, as far as UTF-8 tells.
std::size_t width(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xC0) != 0x80; }));
}

}  // namespace

std::string textTable(
    const std::vector<std::vector<std::string>>& lines,
    const std::function<std::string(const std::string& cell, std::size_t column)>& colourOf) {
  std::vector<std::size_t> widths(lines.front().size());
  for (const auto& cells : lines) {
    for (std::size_t column = 0; column < widths.size(); ++column) {
      widths[column] = std::max(widths[column], width(cells[column]));
    }
  }
  std::string result;
  for (std::size_t number = 0; number < lines.size(); ++number) {
    for (std::size_t column = 0; column < widths.size(); ++column) {
      const std::string& cell = lines[number][column];
      const std::string colour = number > 0 ? colourOf(cell, column) : "";
      result += colour.empty() ? cell : colour + cell + kPlain;
      result +=
          column + 1 < widths.size() ? std::string(widths[column] - width(cell) + 2, ' ') : "\n";
    }
  }
  return result;
}

std::string greyed(const std::string& text) {
  std::string result;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    result += "\x1b[2m" + text.substr(at, end - at) + kPlain + "\n";
    at = end + 1;
  }
  return result;
}

}  // namespace valtor
