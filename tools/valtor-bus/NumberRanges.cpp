#include "valtor-bus/NumberRanges.h"

#include <algorithm>
#include <string_view>

#include "support/CommandFailure.h"
#include "support/WholeNumber.h"

namespace valtor {
namespace {

[[noreturn]] void refuse(const std::string& label, const std::string& text,
                         const std::string& reason) {
  throw CommandFailure(ExitCode::Usage, label + ": \"" + text + "\" " + reason,
                       "Write numbers and ranges with commas between them, such as 1-16 or 0,2-5.");
}

// False unless the whole text is one number from 0 up.
bool readNumber(std::string_view text, int32_t& number) {
  const auto read = wholeNumber<int32_t>(text);
  number = read.value_or(0);
  return read && number >= 0;
}

}  // namespace

std::vector<int32_t> parseNumbers(const std::string& label, const std::string& text) {
  std::vector<int32_t> numbers;
  std::string_view rest = text;
  while (true) {
    const std::size_t comma = rest.find(',');
    const std::string_view part = rest.substr(0, comma);
    const std::size_t dash = part.find('-');
    int32_t first = 0;
    int32_t last = 0;
    if (!readNumber(part.substr(0, dash), first) ||
        !readNumber(dash == std::string_view::npos ? part : part.substr(dash + 1), last)) {
      refuse(label, text, "is no list of numbers");
    }
    if (last < first) {
      refuse(label, text, "holds a range that ends before it begins");
    }
    if (static_cast<std::size_t>(last - first) >= kMostNumbers - numbers.size()) {
      refuse(label, text, "stands for more than " + std::to_string(kMostNumbers) + " numbers");
    }
    for (int32_t offset = 0; offset <= last - first; ++offset) {
      numbers.push_back(first + offset);
    }
    if (comma == std::string_view::npos) {
      return numbers;
    }
    rest.remove_prefix(comma + 1);
  }
}

std::vector<int32_t> parseNumberSet(const std::string& label, const std::string& text) {
  std::vector<int32_t> numbers = parseNumbers(label, text);
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  return numbers;
}

std::vector<std::pair<int32_t, int32_t>> runsOf(const std::vector<int32_t>& ascending) {
  std::vector<std::pair<int32_t, int32_t>> runs;
  for (const int32_t number : ascending) {
    if (!runs.empty() && runs.back().second == number - 1) {
      runs.back().second = number;
    } else {
      runs.emplace_back(number, number);
    }
  }
  return runs;
}

std::string formatNumbers(const std::vector<int32_t>& ascending) {
  std::string text;
  for (const auto& [first, last] : runsOf(ascending)) {
    text += (text.empty() ? "" : ",") + std::to_string(first) +
            (first == last ? "" : "-" + std::to_string(last));
  }
  return text;
}

}  // namespace valtor
