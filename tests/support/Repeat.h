#pragma once

namespace valtor::test {

// How often a race is provoked: the full number where gcc's thread sanitizer watches, a tenth
// elsewhere.
inline constexpr int repetitions(int full) {
#ifdef __SANITIZE_THREAD__
  return full;
#else
  return full / 10;
#endif
}

}  // namespace valtor::test
