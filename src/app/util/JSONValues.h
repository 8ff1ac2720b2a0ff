#pragma once

#include <cstddef>
#include <string_view>

namespace valtor {

// Whether the tree of a JSON text would hold more values than the limit, a member's name counting
// as one: what a tree costs depends on them, not on the bytes. Counts up to the limit or the end of
// the outermost value, whatever stands behind that. Of text that is no JSON it counts what stands
// before the fault, which a parser has built by then, and perhaps more. Any thread may call it.
bool holdsMoreValues(std::string_view text, std::size_t limit);

}  // namespace valtor
