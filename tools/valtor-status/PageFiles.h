#pragma once

#include <string_view>

namespace valtor {

// The files of the page, as they were when this program was built.
extern const std::string_view kPageIndex;
extern const std::string_view kPageScript;
extern const std::string_view kPageStyle;

}  // namespace valtor
