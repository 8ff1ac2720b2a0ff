#pragma once

#include <cstddef>

namespace valtor {

// What the daemon's status socket allows, and what its readers may count on.

constexpr std::size_t kMostFollowers = 16;           // at once, of all routers together
constexpr std::size_t kLongestStatusRequest = 1024;  // bytes of the line that an asker sends
// Bytes of an answer, after which a reader gives up. Ten thousand routers, each with all the losses
// that are kept and every rule in both directions, need some 12 MB.
constexpr std::size_t kLongestStatus = 33554432;

}  // namespace valtor
