#pragma once

#include <cstdint>

namespace valtor {

// The status codes that this system sets or asks for. Answers and device parameters carry them as
// plain numbers, others among them: statusText() knows them all.
inline constexpr int32_t kStatusNone = 0;
inline constexpr int32_t kStatusOK = 200;
inline constexpr int32_t kStatusBadRequest = 400;

}  // namespace valtor
