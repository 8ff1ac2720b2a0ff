#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace valtor {

// One entry of a participant's subscription list.
struct NodeSubscription {
  std::string path;         // literal, or with "*" at its end: everything that begins like it
  bool receiveAll = false;  // also what is addressed to somebody else
};

// The paths that one participant listens to, in the order of their arrival. Not thread-safe.
class Subscriptions {
 public:
  // Adds an entry; one whose path is listed already takes its place.
  void add(NodeSubscription entry);

  // Whether any entry covers the path.
  bool covers(std::string_view path) const;
  // Whether any entry with receiveAll covers the path.
  bool coversForOthers(std::string_view path) const;

  const std::vector<NodeSubscription>& entries() const { return entries_; }

 private:
  std::vector<NodeSubscription> entries_;
};

}  // namespace valtor
