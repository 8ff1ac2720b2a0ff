#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/util/UniqueDescriptor.h"
#include "load/EventLoop.h"
#include "load/NumberedTraffic.h"

namespace valtor::bench {

// A bus node with one participant, the daemon: the controller's or a router's. It answers
// keep-alives, sends what it is given and hands out what it receives. A new connection stands
// beside those before it, until their far ends are gone: what is sent goes to all, and all are
// heard.
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
  // Of the last link.
  std::size_t unsent() const { return isLinked() ? standing_.back()->unsent() : 0; }

  // Login and subscriptions have come over the last link.
  bool isReady() const { return isLinked() && standing_.back()->loginFrames >= 2; }
  bool isLinked() const { return !standing_.empty(); }
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
  struct Link {
    UniqueDescriptor socket;  // none once the link has ended
    std::string out;
    std::size_t outSent = 0;
    std::vector<char> in;
    std::size_t inBegin = 0;
    std::size_t inEnd = 0;
    int loginFrames = 0;

    std::size_t unsent() const { return out.size() - outSent; }
  };

  void accept();
  void handle(Link& link, uint32_t events);
  // Reads at most this many bytes; false once the link has ended.
  bool readSome(Link& link, std::size_t most);
  void takeFrames(Link& link);
  void takePayload(Link& link, std::string_view payload);
  void sendFrame(Link& link, std::string_view frame);
  void flush(Link& link);
  void watch(const Link& link);
  void watchAll();
  void end(Link& link);

  EventLoop& loop_;
  std::string address_;
  uint16_t port_;
  UniqueDescriptor listener_;
  std::vector<std::shared_ptr<Link>> standing_;  // whoever works with one of them holds it
  std::vector<NumberedCheck*> checks_;
  int receiveBuffer_ = 0;  // 0: the system's default
  bool reading_ = true;
  EventLoop::TimerId slowReader_ = 0;
  int links_ = 0;
};

}  // namespace valtor::bench
