#pragma once

#include <functional>
#include <string>
#include <vector>

namespace valtor {

// The lines with their cells below each other, two blanks between the columns; the first line has
// the heads. A cell below them is shown in the colour that the function names for it and its
// column ("" for none).
std::string textTable(
    const std::vector<std::vector<std::string>>& lines,
    const std::function<std::string(const std::string& cell, std::size_t column)>& colourOf);

// Every line of the text greyed out.
std::string greyed(const std::string& text);

}  // namespace valtor
