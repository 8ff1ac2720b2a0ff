#pragma once

#include <chrono>

namespace valtor {

// Now, in seconds since 1970.
inline double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace valtor
