#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "bus/BusSupport.h"
#include "bus/IPellInternalClient.h"
#include "bus/IPellaMessageForwarder.h"

namespace valtor::test {

// Stands in for the interface client: the payloads of the master bus in the order in which they
// were put there.
class MasterBus : public IPellInternalClient, public IPellaMessageForwarder {
 public:
  int sendMessage(const PellInternalMessage& message) override {
    return keep(message.encodeFrom(101));
  }
  int forwardMessage(const PellInternalMessage& message) override { return keep(message.encode()); }
  int onMessage(const PellInternalMessage&) override { return 0; }
  void subscribe(const std::string&) override {}

  std::vector<std::string> payloads() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return payloads_;
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
};

}  // namespace valtor::test
