#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "bus/PellInternalClient.h"

namespace valtor::test {

// Timing with which a test meets reconnection and silence in milliseconds.
inline PellInternalClient::Timing quickTiming() {
  PellInternalClient::Timing timing;
  timing.reconnectDelay = std::chrono::milliseconds(20);
  return timing;
}

// A bus client that remembers what it received and every change of its state.
class TestBusClient : public PellInternalClient {
 public:
  explicit TestBusClient(int port, const std::string& name = "tester", int budget = 100)
      : PellInternalClient("127.0.0.1", port, name, budget) {
    setTiming(quickTiming());
  }
  ~TestBusClient() override { stopForDestruction(); }

  int getConnID() override { return 77; }
  int onMessage(const PellInternalMessage& message) override {
    PellInternalClient::onMessage(message);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      paths_.push_back(message.getPath());
    }
    if (onEach) {
      onEach(message);
    }
    return 0;
  }
  void onConnectionStateChanged(int state, const std::string& reason) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    states_.push_back(std::to_string(state) + " " + reason);
  }

  std::vector<std::string> paths() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return paths_;
  }
  std::vector<std::string> states() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return states_;
  }

  std::function<void(const PellInternalMessage&)> onEach;  // set before connect()

 private:
  std::mutex mutex_;
  std::vector<std::string> paths_;
  std::vector<std::string> states_;
};

}  // namespace valtor::test
