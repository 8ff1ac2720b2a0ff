#include "load/Flow.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace valtor::bench {

Flow::Flow(EventLoop& loop, Node& from, const std::vector<Node*>& to, const TrafficShape& shape)
    : loop_(loop), from_(from), to_(to), stream_(shape) {
  for (Node* node : to_) {
    checks_.push_back(std::make_unique<NumberedCheck>(stream_));
    node->registerCheck(*checks_.back());
  }
}

Flow::~Flow() {
  stop();
  for (std::size_t i = 0; i < to_.size(); ++i) {
    to_[i]->forgetCheck(*checks_[i]);
  }
  for (const auto& [node, check] : observed_) {
    node->forgetCheck(*check);
  }
}

NumberedCheck& Flow::observe(Node& node) {
  observed_.emplace_back(&node, std::make_unique<NumberedCheck>(stream_));
  node.registerCheck(*observed_.back().second);
  return *observed_.back().second;
}

void Flow::send(uint64_t count) {
  for (; count > 0; --count) {
    from_.sendFrame(stream_.nextFrame());
  }
}

template <typename Call>
void Flow::restart(std::chrono::nanoseconds period, Call call) {
  stop();
  timer_ = loop_.every(period, std::move(call));
}

void Flow::pace(double perSecond) {
  restart(std::chrono::nanoseconds(static_cast<int64_t>(1e9 / perSecond)), [this] { send(1); });
}

void Flow::keepUnderWay(uint64_t messages) {
  restart(std::chrono::microseconds(500),
          [this, messages] { send(messages - std::min(messages, sent() - slowest())); });
}

void Flow::flood(std::size_t bytes) {
  restart(std::chrono::milliseconds(1), [this, bytes] {
    // No more than so many at once: an idle socket takes everything.
    for (int i = 0; i < 1000 && from_.unsent() < bytes; ++i) {
      send(1);
    }
  });
}

void Flow::stop() {
  if (timer_ != 0) {
    loop_.cancel(std::exchange(timer_, 0));
  }
}

uint64_t Flow::arrived() const {
  uint64_t sum = 0;
  for (const auto& check : checks_) {
    sum += check->received();
  }
  return sum;
}

uint64_t Flow::slowest() const {
  uint64_t least = UINT64_MAX;
  for (const auto& check : checks_) {
    least = std::min(least, check->next());
  }
  return least;
}

Samples Flow::delays() const {
  Samples all;
  for (const auto& check : checks_) {
    all.add(check->delays());
  }
  return all;
}

void Flow::forgetDelays() {
  for (const auto& check : checks_) {
    check->forgetDelays();
  }
}

}  // namespace valtor::bench
