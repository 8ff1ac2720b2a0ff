#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "connections/ConnectionPointManager.h"

namespace valtor {

// What a manager tells about one of its routers to whoever asks.
struct RouterDescription {
  std::string name;
  std::string uniqueID;
  std::string address;
  int32_t port = 0;
  bool enabled = false;
  std::chrono::system_clock::time_point enabledSince;  // or disabled
};

// The routers of all managers of the process, in the order of their unique IDs. Any thread may ask,
// and waits for no manager: neither the handler lock nor a manager lock is taken.
std::vector<RouterDescription> describeRouters();
// The same of the files that these managers could not write: how many there are.
unsigned countUnsavedFiles();

// The connection points that stand for remote routers. Besides managing them it hands every message
// that it is offered to the process's router peer manager, which is the whole way from the master
// bus to the routers. Bus client and router peer manager outlive its connection points.
class RemoteValtorConnectionPointManager : public ConnectionPointManager {
 public:
  // With rejectLoopback, routers at 127.0.0.1, the controller itself, are refused.
  RemoteValtorConnectionPointManager(const std::string& name, const std::string& type,
                                     IPellInternalClient& busClient, bool rejectLoopback = true);
  ~RemoteValtorConnectionPointManager() override;

  // The inherited handling and its result; the message then goes to the routers in any case.
  bool handleMessage(const PellInternalMessage& message, ResponseList& responses) override;
  // A remote router; none when the description does not load or is refused.
  std::unique_ptr<ConnectionPoint> createConnectionPoint(const cJSON* item) override;

 private:
  friend std::vector<RouterDescription> describeRouters();

  const bool rejectLoopback_;
};

}  // namespace valtor
