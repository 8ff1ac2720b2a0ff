#pragma once

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bus/IPellInternalClient.h"
#include "bus/IPellaMessageForwarder.h"
#include "bus/PellInternalMessage.h"

namespace valtor::test {

// A message as it arrives from a bus.
inline PellInternalMessage received(const std::string& payload) {
  auto buffer = std::make_unique<char[]>(payload.size() + 1);
  std::memcpy(buffer.get(), payload.c_str(), payload.size() + 1);
  return PellInternalMessage(std::move(buffer));
}

inline std::string bodyOf(const std::string& payload) {
  return payload.substr(payload.find('\n') + 1);
}

// Stands in for the interface client: the payloads of the master bus in the order in which they
// were put there, and the paths subscribed.
class MasterBus : public IPellInternalClient, public IPellaMessageForwarder {
 public:
  int sendMessage(const PellInternalMessage& message) override {
    return keep(message.encodeFrom(101));
  }
  int forwardMessage(const PellInternalMessage& message) override { return keep(message.encode()); }
  int onMessage(const PellInternalMessage&) override { return 0; }
  void subscribe(const std::string& path) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    subscribed_.push_back(path);
  }

  std::vector<std::string> payloads() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return payloads_;
  }
  std::vector<std::string> subscribed() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return subscribed_;
  }
  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    payloads_.clear();
  }

 private:
  int keep(std::string payload) {
    const std::lock_guard<std::mutex> lock(mutex_);
    payloads_.push_back(std::move(payload));
    return 0;
  }

  mutable std::mutex mutex_;
  std::vector<std::string> payloads_;
  std::vector<std::string> subscribed_;
};

}  // namespace valtor::test
