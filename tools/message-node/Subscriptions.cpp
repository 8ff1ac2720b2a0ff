#include "message-node/Subscriptions.h"

#include <algorithm>
#include <utility>

namespace valtor {

namespace {

bool entryCovers(const NodeSubscription& entry, std::string_view path) {
  const std::string_view pattern = entry.path;
  if (pattern.empty() || pattern.back() != '*') {
    return pattern == path;
  }
  const std::string_view start = pattern.substr(0, pattern.size() - 1);
  return path.substr(0, start.size()) == start;
}

}  // namespace

void Subscriptions::add(NodeSubscription entry) {
  const auto same = std::find_if(entries_.begin(), entries_.end(),
                                 [&](const auto& listed) { return listed.path == entry.path; });
  if (same != entries_.end()) {
    same->receiveAll = entry.receiveAll;
  } else {
    entries_.push_back(std::move(entry));
  }
}

bool Subscriptions::covers(std::string_view path) const {
  return std::any_of(entries_.begin(), entries_.end(),
                     [&](const auto& entry) { return entryCovers(entry, path); });
}

bool Subscriptions::coversForOthers(std::string_view path) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const auto& entry) {
    return entry.receiveAll && entryCovers(entry, path);
  });
}

}  // namespace valtor
