#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "app/util/Mutex.h"
#include "app/util/TrafficCount.h"
#include "bus/message/HeaderLine.h"

namespace valtor {

// Which way a message crosses the bridge.
enum class Direction { ToRouters, ToController };

// What is kept and shown of a path: a received one may have 64 KiB, one that can be sent never has
// more than HeaderLine::kLongest bytes.
std::string_view shownPath(std::string_view path);

// What crosses the bridge, by direction, kind and path. Counted without a lock once a pair is
// known; what comes after the first kPairs of them counts together. Any thread may use it.
class Crossings {
 public:
  static constexpr std::size_t kPairs = 64;

  struct Figures {
    Direction direction = Direction::ToRouters;
    MessageKind kind = MessageKind::Unknown;  // Unknown: all others
    std::string path;
    TrafficCount::Figures traffic;
  };

  void add(Direction direction, MessageKind kind, std::string_view path, std::size_t bytes);
  // In the order in which they came up; the others last, if there are any.
  std::vector<Figures> figures() const;

 private:
  struct Pair {
    Direction direction = Direction::ToRouters;
    MessageKind kind = MessageKind::Unknown;
    std::string path;
    TrafficCount traffic;
  };

  Pair* find(std::size_t known, Direction direction, MessageKind kind, std::string_view path);
  Pair* findOrAdd(Direction direction, MessageKind kind, std::string_view path);

  std::array<Pair, kPairs> pairs_;  // a pair below known_ changes no more but for its traffic
  std::atomic<std::size_t> known_{0};
  TrafficCount others_;
  Mutex addLock_;  // a leaf: who adds a pair
};

}  // namespace valtor
