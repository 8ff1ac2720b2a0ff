#include "message-node/RunningNode.h"

#include <stdexcept>
#include <utility>

namespace valtor {

RunningNode::RunningNode(MessageNode::Options options) : node_(recording(std::move(options))) {
  if (const std::error_code error = node_.startListening()) {
    throw std::runtime_error("cannot listen: " + error.message());
  }
  thread_ = node_.runOnThread();
}

RunningNode::~RunningNode() {
  node_.stop();
  wait();
}

void RunningNode::wait() {
  if (thread_.joinable()) {
    thread_.join();
  }
}

std::vector<PassedMessage> RunningNode::passed() const {
  const Locked<Mutex> lock(lock_);
  return passed_;
}

std::vector<std::string> RunningNode::events() const {
  const Locked<Mutex> lock(lock_);
  return events_;
}

void RunningNode::forget() {
  const Locked<Mutex> lock(lock_);
  passed_.clear();
  events_.clear();
}

std::size_t RunningNode::countEvents(const std::string& part) const {
  std::size_t count = 0;
  for (const std::string& event : events()) {
    count += event.find(part) != std::string::npos ? 1 : 0;
  }
  return count;
}

MessageNode::Options RunningNode::recording(MessageNode::Options options) {
  options.onMessage = [this, next = std::move(options.onMessage)](const PassedMessage& message) {
    {
      const Locked<Mutex> lock(lock_);
      passed_.push_back(message);
    }
    if (next) {
      next(message);
    }
  };
  options.onEvent = [this, next = std::move(options.onEvent)](const std::string& line) {
    {
      const Locked<Mutex> lock(lock_);
      events_.push_back(line);
    }
    if (next) {
      next(line);
    }
  };
  return options;
}

}  // namespace valtor
