#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "load/EventLoop.h"
#include "load/Node.h"
#include "load/NumberedTraffic.h"

namespace valtor::bench {

// One numbered stream from a node to others, checked at each of them. The nodes outlive it.
class Flow {
 public:
  Flow(EventLoop& loop, Node& from, const std::vector<Node*>& to, const TrafficShape& shape);
  ~Flow();
  Flow(const Flow&) = delete;
  Flow& operator=(const Flow&) = delete;

  void send(uint64_t count);
  // Sends this many messages a second from now on.
  void pace(double perSecond);
  // Keeps this many messages under way to the slowest receiver.
  void keepUnderWay(uint64_t messages);
  // Keeps this many bytes waiting for the sender's socket: more than the bridge takes.
  void flood(std::size_t bytes);
  void stop();

  uint64_t sent() const { return stream_.made(); }
  // Of all receivers together.
  uint64_t arrived() const;
  bool allArrived() const { return arrived() == sent() * checks_.size(); }
  // Of all receivers together, since forgetDelays.
  Samples delays() const;
  void forgetDelays();

  // Checks what arrives at one more node, which need not get everything and delays nobody.
  NumberedCheck& observe(Node& node);

  // In the order of the receivers.
  NumberedCheck& check(std::size_t receiver) { return *checks_[receiver]; }
  std::size_t receivers() const { return checks_.size(); }

 private:
  uint64_t slowest() const;
  template <typename Call>
  void restart(std::chrono::nanoseconds period, Call call);

  EventLoop& loop_;
  Node& from_;
  std::vector<Node*> to_;
  NumberedStream stream_;
  std::vector<std::unique_ptr<NumberedCheck>> checks_;
  std::vector<std::pair<Node*, std::unique_ptr<NumberedCheck>>> observed_;
  EventLoop::TimerId timer_ = 0;
};

}  // namespace valtor::bench
