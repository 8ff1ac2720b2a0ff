#pragma once

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "app/util/Mutex.h"
#include "message-node/MessageNode.h"

namespace valtor {

// A message node that listens and serves on a thread of its own while the object lives, and keeps a
// record of what passed. Any thread may call its operations.
class RunningNode {
 public:
  // Callbacks in the options are called besides the record. Throws std::runtime_error with the
  // address and the reason when the node cannot listen.
  explicit RunningNode(MessageNode::Options options = {});
  ~RunningNode();
  RunningNode(const RunningNode&) = delete;
  RunningNode& operator=(const RunningNode&) = delete;

  MessageNode* operator->() { return &node_; }
  MessageNode& operator*() { return node_; }
  uint16_t port() const { return node_.port(); }

  // Blocks until another thread has called stop() on the node.
  void wait();

  // Everything since the start or the last forget(), in order.
  std::vector<PassedMessage> passed() const;
  std::vector<std::string> events() const;
  void forget();

  // How many of the recorded messages meet the condition.
  template <class Condition>
  std::size_t countPassed(Condition condition) const {
    std::size_t count = 0;
    for (const PassedMessage& message : passed()) {
      count += condition(message) ? 1 : 0;
    }
    return count;
  }
  // How many of the recorded events hold the text.
  std::size_t countEvents(const std::string& part) const;

 private:
  MessageNode::Options recording(MessageNode::Options options);

  mutable Mutex lock_;
  std::vector<PassedMessage> passed_ VALTOR_GUARDED_BY(lock_);
  std::vector<std::string> events_ VALTOR_GUARDED_BY(lock_);
  MessageNode node_;
  std::thread thread_;
};

}  // namespace valtor
