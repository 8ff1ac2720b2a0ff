#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>

#include "app/util/UniqueDescriptor.h"
#include "load/EventLoop.h"

namespace valtor::bench {

// The network between the daemon and a node: it listens where the daemon expects the node, and
// carries one link after another on to the node at the same address and another port, until it is
// told to do that badly.
class FaultyLink {
 public:
  enum Way { kToNode, kToDaemon };

  FaultyLink(EventLoop& loop, std::string address, uint16_t port, uint16_t nodePort);
  ~FaultyLink();
  FaultyLink(const FaultyLink&) = delete;
  FaultyLink& operator=(const FaultyLink&) = delete;

  // Last until it is healed, for the links to come, too.
  void delay(Way way, std::chrono::milliseconds time);
  // One byte a millisecond.
  void dribble();
  // Takes nothing and gives nothing.
  void stall();
  // Lasts until it is healed or the link ends.
  // Takes everything and gives nothing as long as the link stands, and keeps silent even when the
  // node hangs up.
  void swallow();
  // Undoes all of these, and lets go of a link that was left at the node. A link that has swallowed
  // ends: what is missing would break the framing.
  void heal();

  // End the link that stands, if one does.
  void cut();
  void reset();
  // The daemon finds the end of the stream, but what it writes still arrives until it ends the
  // link.
  void halfClose();
  // Only the daemon's side ends, with all that it wrote on its way to the node, where the link goes
  // on standing until it is healed: the daemon's next one is one more.
  void endDaemonSide();

  // Who connects is refused.
  void stopListening();
  void listen();

  // Calls once that many bytes have passed from now on, before the next one does.
  void after(Way way, std::size_t bytes, std::function<void()> call);
  // Calls when the daemon has connected next, before anything passes, or after its first frame.
  void atNextLink(std::function<void()> call) { atLink_ = std::move(call); }
  void afterNextLogin(std::function<void()> call) { afterLogin_ = std::move(call); }

  // A link stands and has two sides.
  bool isWhole() const { return daemon_.valid() && node_.valid() && !halfClosed_; }
  // Until the link that swallows has ended.
  bool isSwallowing() const { return swallows_; }
  // Links that the daemon ever made.
  int links() const { return links_; }
  // How many of them it made while it still kept the one before.
  int doubled() const { return doubled_; }

 private:
  using Call = std::function<void()>;
  struct Pipe {
    std::chrono::milliseconds delay{0};
    std::deque<std::pair<int64_t, std::string>> waiting;  // when it is due, in ns
    std::size_t bytes = 0;                                // that wait
    std::size_t left = 0;                                 // until the call
    Call call;
  };

  void accept();
  void handle(uint32_t events, bool fromDaemon);
  // False once the link has ended.
  bool read(Way way);
  void write(Way way);
  void hold(Way way, std::string&& data);
  void watch();
  void end(bool withReset);
  int source(Way way) const { return way == kToNode ? daemon_.get() : node_.get(); }
  int sink(Way way) const { return source(way == kToNode ? kToDaemon : kToNode); }
  bool isReading(Way way) const;

  EventLoop& loop_;
  const std::string address_;
  const uint16_t port_;
  const uint16_t nodePort_;
  UniqueDescriptor listener_;
  UniqueDescriptor daemon_;
  UniqueDescriptor node_;
  UniqueDescriptor orphan_;  // a node's side without the daemon's
  Pipe pipes_[2];
  bool dribbles_ = false;
  bool stalls_ = false;
  bool swallows_ = false;
  bool halfClosed_ = false;
  Call atLink_;
  Call afterLogin_;
  int links_ = 0;
  int doubled_ = 0;
  EventLoop::TimerId clock_;
};

}  // namespace valtor::bench
