#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "valtor-status/FollowRelays.h"
#include "valtor-status/LiveState.h"

namespace valtor {

// Serves the page, and what it shows, to browsers: over HTTP, without a login, read-only. Each
// connection has a thread; more than kMostConnections are answered with 503, and so are more than
// kMostStreams event streams, so that short requests always find room. Whoever is slow gets the
// newest state next and loses older ones.
class PageServer {
 public:
  static constexpr std::size_t kMostConnections = 160;
  static constexpr std::size_t kMostStreams = 128;

  struct Settings {
    std::string address = "127.0.0.1";
    int port = 15080;                    // 0: any that is free
    std::vector<std::string> hostNames;  // beside the address and localhost; ports do not matter
    std::string version;
    std::chrono::milliseconds stall{10000};  // without taking anything, before a browser is left
    std::string chartFile = "/usr/share/javascript/chart.js/chart.min.js";
  };

  // Both have to outlive it; the state ends first.
  PageServer(Settings settings, LiveState& state, FollowRelays& relays);
  // Ends every connection.
  ~PageServer();
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  // Begins to serve, on threads of its own; false when the address cannot be had: errno says why,
  // and is 0 when there is no such address.
  bool start();
  // Where it serves, once it was started.
  int port() const;
  // How many event streams there are.
  std::size_t streams() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace valtor
