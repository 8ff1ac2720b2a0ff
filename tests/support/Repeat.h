#pragma once

namespace valtor::test {

#if defined(__SANITIZE_THREAD__)
inline constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif
#else
inline constexpr bool kThreadSanitizer = false;
#endif

// How often a race is provoked: the full number where the thread sanitizer watches, a tenth
// elsewhere.
inline constexpr int repetitions(int full) { return kThreadSanitizer ? full : full / 10; }

}  // namespace valtor::test
