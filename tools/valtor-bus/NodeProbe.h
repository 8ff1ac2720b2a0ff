#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "valtor-bus/BusConnection.h"

namespace valtor {

// A message node to look at.
struct ProbedNode {
  std::string address;  // IPv4
  int port = 0;
  std::string fault;  // filled in: why it gives no sign of life; "" when it does
};

// Connects to every node itself, all at once, logs in and sends a keep-alive; whoever does not
// answer it with an "ACK" within the time has a fault. Uses a descriptor for each node. Throws
// std::system_error when there are not enough.
void probeNodes(std::vector<ProbedNode>& nodes, const BusSettings& login,
                std::chrono::milliseconds time);

}  // namespace valtor
