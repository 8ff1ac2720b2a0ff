#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "bus/BusSupport.h"
#include "bus/IPellInternalClient.h"
#include "bus/IPellaMessageForwarder.h"

namespace valtor::test {

using Payloads = std::vector<std::string>;

// The payload without the identifier at the front of its body, which differs from run to run.
inline std::string withoutId(std::string payload) {
  const auto start = payload.find('{') + 1;
  return payload.erase(start, payload.find(',', start) + 1 - start);
}

// A notification about these elements, comma between them: {key: {object: [elements]}}.
inline std::string notification(const std::string& key, const std::string& object,
                                const std::string& elements) {
  return "[\"NOT\", \"device\", 101, 0, 0]\n{\"" + key + "\":{\"" + object + "\":[" + elements +
         "]}}";
}

// A request that connection 490 makes.
inline PellInternalMessage request(const std::string& kind, const std::string& body,
                                   const std::string& path = "device") {
  return received("[\"" + kind + "\", \"" + path + "\", 490, 0, 0]\n" + body);
}

// Stands in for the interface client: the payloads of the master bus in the order in which they
// were put there, those of sent messages without their identifiers.
class MasterBus : public IPellInternalClient, public IPellaMessageForwarder {
 public:
  int sendMessage(const PellInternalMessage& message) override {
    return keep(payloads_, withoutId(message.encodeFrom(101)));
  }
  int forwardMessage(const PellInternalMessage& message) override {
    return keep(payloads_, message.encode());
  }
  int onMessage(const PellInternalMessage&) override { return 0; }
  void subscribe(const std::string& path) override { keep(subscriptions_, path); }

  Payloads payloads() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return payloads_;
  }
  std::vector<std::string> subscriptions() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return subscriptions_;
  }
  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    payloads_.clear();
  }

 private:
  int keep(std::vector<std::string>& list, std::string text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    list.push_back(std::move(text));
    return 0;
  }

  mutable std::mutex mutex_;
  Payloads payloads_;
  std::vector<std::string> subscriptions_;
};

}  // namespace valtor::test
