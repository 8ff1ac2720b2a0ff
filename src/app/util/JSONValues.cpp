#include "app/util/JSONValues.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace valtor {

namespace {

// What a byte outside strings is.
enum class Part : uint8_t { Scalar, Between, Open, Close, Quote };

constexpr std::array<Part, 256> partTable() {
  std::array<Part, 256> parts{};
  for (std::size_t blank = 0; blank <= ' '; ++blank) {
    parts[blank] = Part::Between;
  }
  parts[','] = parts[':'] = Part::Between;
  parts['['] = parts['{'] = Part::Open;
  parts[']'] = parts['}'] = Part::Close;
  parts['"'] = Part::Quote;
  return parts;
}

constexpr std::array<Part, 256> kParts = partTable();

Part partOf(char byte) { return kParts[static_cast<unsigned char>(byte)]; }

// Behind the quote that closes the string which begins here; the end when none does.
const char* endOfString(const char* begin, const char* end) {
  for (const char* at = begin; at != end;) {
    const auto* quote =
        static_cast<const char*>(std::memchr(at, '"', static_cast<std::size_t>(end - at)));
    if (quote == nullptr) {
      return end;
    }
    const char* escape = quote;
    while (escape != begin && escape[-1] == '\\') {
      --escape;
    }
    at = quote + 1;
    if ((quote - escape) % 2 == 0) {
      return at;
    }
  }
  return end;
}

}  // namespace

bool holdsMoreValues(std::string_view text, std::size_t limit) {
  // Every value or name but the outermost and the first in its container has a "," or ":" before
  // it; that one's container closes with a byte of its own. So n of them take 2n - 1 bytes.
  if (text.size() <= 2 * limit) {
    return false;
  }
  const char* const end = text.data() + text.size();
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // which cJSON steps over
  if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
    text.remove_prefix(kByteOrderMark.size());
  }
  std::size_t count = 0;
  std::size_t depth = 0;
  for (const char* at = text.data(); at != end && count <= limit;) {
    const Part part = partOf(*at++);
    if (part == Part::Between) {
      continue;
    }
    if (part == Part::Close) {
      depth -= depth > 0 ? 1 : 0;
    } else {
      ++count;
    }
    if (part == Part::Open) {
      ++depth;
    } else if (part == Part::Quote) {
      at = endOfString(at, end);
    } else if (part == Part::Scalar) {
      at = std::find_if(at, end, [](char byte) { return partOf(byte) != Part::Scalar; });
    }
    if (depth == 0) {
      break;
    }
  }
  return count > limit;
}

}  // namespace valtor
