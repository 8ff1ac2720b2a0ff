#pragma once

namespace valtor::test {

// Whether a sanitizer is built in, which takes memory and descriptors of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace valtor::test
