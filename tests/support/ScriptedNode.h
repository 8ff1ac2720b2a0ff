#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "app/util/UniqueDescriptor.h"

namespace valtor::test {

// One accepted connection of a ScriptedNode: raw bytes and whole frames, each with a deadline.
class ScriptedPeer {
 public:
  explicit ScriptedPeer(UniqueDescriptor socket) : socket_(std::move(socket)) {}

  // The payload of the next frame; throws std::runtime_error when none is complete in time, or when
  // the other side hung up.
  std::string readFrame();
  // Whether another frame arrives within the time.
  bool hasFrameWithin(std::chrono::milliseconds time);
  // Reads and drops until the other side hangs up; false when it does not within the deadline.
  bool waitForHangUp();

  void send(const std::string& bytes);
  // Sends a payload in its frame.
  void sendPayload(const std::string& payload);
  void close() { socket_.reset(); }
  int descriptor() const { return socket_.get(); }

 private:
  bool fill(std::chrono::milliseconds time);

  UniqueDescriptor socket_;
  std::string buffer_;
};

// A bus node that does only what a test tells it: it listens on a loopback address and hands out
// what it accepts. Used by one thread.
class ScriptedNode {
 public:
  // Port 0 takes a free one.
  explicit ScriptedNode(const std::string& address = "127.0.0.1", int port = 0);

  int port() const { return port_; }
  const std::string& address() const { return address_; }
  // The next connection; throws std::runtime_error when none comes in time.
  std::unique_ptr<ScriptedPeer> accept();
  bool hasConnectionWithin(std::chrono::milliseconds time);
  // Stops listening; connections stay.
  void stop() { listener_.reset(); }

 private:
  std::string address_;
  UniqueDescriptor listener_;
  int port_ = 0;
};

}  // namespace valtor::test
