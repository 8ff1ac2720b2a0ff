#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "bus/BusLink.h"
#include "bus/ClientTiming.h"
#include "bus/ClosingSignal.h"
#include "bus/IClientThreadHost.h"
#include "bus/MyThreadClass.h"
#include "bus/ReceiveQueue.h"

namespace valtor {

// The reading side of a bus client: it keeps the link up, reads the socket in chunks onto the
// receive queue, sends keep-alive requests, and declares the link dead on hang-up, on read errors,
// or when nothing arrives for too long. It does not parse. The client owns it, and everything that
// it refers to outlives it.
class PellInternalClientRxThread : public MyThreadClass {
 public:
  struct Parts {
    IClientThreadHost& host;
    BusLink& link;
    ReceiveQueue& queue;
    const ClosingSignal& closing;
    const ClientTiming& timing;
    const std::string& name;
  };

  // A queue limit of 0 means that reading pauses while kPauseChunks or kPauseBytes wait; any other
  // limit, in chunks, means that what is read beyond it is lost, with a warning.
  PellInternalClientRxThread(const Parts& parts, uint32_t queueLimit);

  static constexpr uint32_t kPauseChunks = 8000;
  // Dozens of routers may be behind at once on a small machine.
  static constexpr std::size_t kPauseBytes = 8 << 20;
  // Keep-alives go out from this many consecutive time-outs on.
  static constexpr uint32_t kKeepAliveTimeouts = 5;
  // This many consecutive time-outs end the link.
  static constexpr uint32_t kDeadTimeouts = 10;

 protected:
  void InternalThreadEntry() override;

 private:
  using Clock = std::chrono::steady_clock;

  bool goesOn();
  void keepConnected();
  void readOnce();
  void handleData(std::size_t length);
  void keep(std::size_t length);
  void handleEnd(int descriptor);
  void handleTimeout(int descriptor);
  void handleError(int error);
  bool pauseWhileFull(int descriptor);
  void sendKeepAlive();

  Parts parts_;
  uint32_t timeoutCount_ = 0;
  const uint32_t queueLimit_;
  std::array<char, 15360> buffer_;
  Clock::time_point lastKeepAlive_{};
  Clock::time_point nextAttempt_{};
  Clock::time_point nextTold_{};  // that memory lacks
};

}  // namespace valtor
