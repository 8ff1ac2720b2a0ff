#include "peers/Crossings.h"

#include "app/util/ErrnoText.h"

namespace valtor {

std::string_view shownPath(std::string_view path) { return cutText(path, HeaderLine::kLongest); }

Crossings::Pair* Crossings::find(std::size_t known, Direction direction, MessageKind kind,
                                 std::string_view path) {
  for (std::size_t i = 0; i < known; ++i) {
    Pair& pair = pairs_[i];
    if (pair.kind == kind && pair.direction == direction && pair.path == path) {
      return &pair;
    }
  }
  return nullptr;
}

// Null when all places are taken.
Crossings::Pair* Crossings::findOrAdd(Direction direction, MessageKind kind,
                                      std::string_view path) {
  const Locked lock(addLock_);
  const std::size_t known = known_;
  if (Pair* const pair = find(known, direction, kind, path); pair != nullptr || known == kPairs) {
    return pair;
  }
  Pair& added = pairs_[known];
  added.direction = direction;
  added.kind = kind;
  added.path = path;
  known_.store(known + 1, std::memory_order_release);
  return &added;
}

void Crossings::add(Direction direction, MessageKind kind, std::string_view path,
                    std::size_t bytes) {
  path = shownPath(path);
  const std::size_t known = known_.load(std::memory_order_acquire);
  Pair* pair = find(known, direction, kind, path);
  if (pair == nullptr && known < kPairs) {
    pair = findOrAdd(direction, kind, path);
  }
  (pair != nullptr ? pair->traffic : others_).add(bytes);
}

std::vector<Crossings::Figures> Crossings::figures() const {
  std::vector<Figures> all;
  const std::size_t known = known_.load(std::memory_order_acquire);
  for (std::size_t i = 0; i < known; ++i) {
    const Pair& pair = pairs_[i];
    all.push_back({pair.direction, pair.kind, pair.path, pair.traffic.figures()});
  }
  if (const auto others = others_.figures(); others.messages > 0) {
    all.push_back({Direction::ToRouters, MessageKind::Unknown, "", others});
  }
  return all;
}

}  // namespace valtor
