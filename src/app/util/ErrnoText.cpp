#include "app/util/ErrnoText.h"

#include <cstring>

namespace valtor {

std::string errnoText(int error) {
  char buffer[256] = "";
  // The GNU form returns the text, in the buffer or in storage that never changes (strerror(3)).
  return strerror_r(error, buffer, sizeof buffer);
}

std::string quotedForLog(const char* text) {
  constexpr std::size_t kLimit = std::size_t{64} * 1024;
  return std::string(text, strnlen(text, kLimit));
}

std::string nameForLog(const std::string& name) { return name.substr(0, 1024); }

std::string_view cutText(std::string_view text, std::size_t most) {
  if (text.size() <= most) {
    return text;
  }
  while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xC0U) == 0x80U) {
    --most;
  }
  return text.substr(0, most);
}

}  // namespace valtor
