#pragma once

#include <functional>
#include <memory>
#include <mosquitto.h>
#include <string>
#include <string_view>

#include "load/EventLoop.h"
#include "load/NumberedTraffic.h"
#include "load/Process.h"

namespace valtor::bench {

// A client of a broker, driven by the loop: it publishes and receives at most once, as the bus
// does.
class BrokerClient {
 public:
  // Connects; throws std::runtime_error when that fails.
  BrokerClient(EventLoop& loop, uint16_t port);
  ~BrokerClient();
  BrokerClient(const BrokerClient&) = delete;
  BrokerClient& operator=(const BrokerClient&) = delete;

  // Receives what is published on the topic, in checks that live as long as the client.
  void subscribe(NumberedCheck& check);
  void unsubscribe();
  void publish(std::string_view payload);

 private:
  void watch();

  EventLoop& loop_;
  std::unique_ptr<mosquitto, void (*)(mosquitto*)> client_;
  NumberedCheck* check_ = nullptr;
  int socket_ = -1;
  EventLoop::TimerId upkeep_ = 0;
};

// Two brokers on loopback, joined by a bridge that carries what is published at the near one to the
// far one.
class Brokers {
 public:
  Brokers();

  const uint16_t nearPort;
  const uint16_t farPort;
  std::unique_ptr<Process> far;
  std::unique_ptr<Process> near;
};

}  // namespace valtor::bench
