#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "app/util/UniqueDescriptor.h"
#include "load/EventLoop.h"
#include "load/NumberedTraffic.h"

namespace valtor::bench {

// A bus node with one participant, the daemon: the controller's or a router's. It answers
// keep-alives, sends what it is given and hands out what it receives. A new connection takes the
// place of the old one.
class Node {
 public:
  // Listens at once; throws std::system_error when the place is taken.
  Node(EventLoop& loop, std::string address, uint16_t port);
  ~Node();
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // Sees every message but keep-alives and those of a registered check.
  std::function<void(std::string_view payload)> onMessage;
  // The check must live as long as the node or until forgotten.
  void registerCheck(NumberedCheck& check) { checks_.push_back(&check); }
  void forgetCheck(const NumberedCheck& check) { std::erase(checks_, &check); }

  // Frames leave as fast as the socket takes them, the rest waits. Dropped without a link.
  void sendFrame(std::string_view frame);
  void sendPayload(std::string_view payload);
  std::size_t unsent() const { return out_.size() - outSent_; }

  // Login and subscriptions have come over the link that stands.
  bool isReady() const { return loginFrames_ >= 2; }
  bool isLinked() const { return link_.valid(); }
  // Links that were ever accepted.
  int links() const { return links_; }

  // What a stalled router does: its socket stays open and is not read.
  void pauseReading();
  void resumeReading();
  // How much the kernel keeps of what is not read, for links accepted after the next start.
  void limitReceiveBuffer(int bytes) { receiveBuffer_ = bytes; }
  // Reads no more than this.
  void readSlowly(std::size_t bytesPerSecond);

  void hangUp();
  // Hangs up and listens no longer, as a router that restarts.
  void stop();
  void start();

  const std::string& address() const { return address_; }
  uint16_t port() const { return port_; }

 private:
  void accept();
  void handle(uint32_t events);
  // Reads at most this many bytes; false once the link has ended.
  bool readSome(std::size_t most);
  void takeFrames();
  void takePayload(std::string_view payload);
  void flush();
  void watch();

  EventLoop& loop_;
  std::string address_;
  uint16_t port_;
  UniqueDescriptor listener_;
  UniqueDescriptor link_;
  std::vector<NumberedCheck*> checks_;
  std::string out_;
  std::size_t outSent_ = 0;
  std::vector<char> in_;
  std::size_t inBegin_ = 0;
  std::size_t inEnd_ = 0;
  int receiveBuffer_ = 0;  // 0: the system's default
  bool reading_ = true;
  EventLoop::TimerId slowReader_ = 0;
  int loginFrames_ = 0;
  int links_ = 0;
};

}  // namespace valtor::bench
