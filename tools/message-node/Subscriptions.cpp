#include "message-node/Subscriptions.h"

#include <algorithm>
#include <utility>

#include "bus/message/HeaderLine.h"

namespace valtor {

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
                     [&](const auto& entry) { return coversPath(entry.path, path); });
}

bool Subscriptions::coversForOthers(std::string_view path) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const auto& entry) {
    return entry.receiveAll && coversPath(entry.path, path);
  });
}

}  // namespace valtor
