#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "app/util/Watchdog.h"
#include "bus/ClientTiming.h"
#include "bus/ClosingSignal.h"
#include "bus/IClientThreadHost.h"
#include "bus/MyThreadClass.h"
#include "bus/ReceiveQueue.h"
#include "bus/message/PellInternalStreamParser.h"

namespace valtor {

// The processing side of a bus client: it drains the receive queue in batches, feeds the client's
// parser, and so runs every onMessage of the client, one message at a time and in order. The client
// owns it, and everything that it refers to outlives it.
class PellInternalClientMsgQThread : public MyThreadClass {
 public:
  struct Parts {
    IClientThreadHost& host;
    ReceiveQueue& queue;
    PellInternalStreamParser& parser;
    const ClosingSignal& closing;
    const ClientTiming& timing;
    const std::string& name;
    Watchdog* watchdog;  // that this thread feeds, or null
  };

  explicit PellInternalClientMsgQThread(const Parts& parts);

  // Chunks are taken while the batch holds at most this many bytes.
  static constexpr std::size_t kBatchBytes = 10485760;
  // The storage of a larger batch is given back when nothing waits behind it. With hundreds of
  // clients the largest batches that they ever had would add up.
  static constexpr std::size_t kKeptBytes = std::size_t{64} << 10;
  // A batch ends, with a warning, when this many chunks were taken since it last happened; the
  // count goes on from batch to batch, so it happens at any load.
  static constexpr uint32_t kDrainedLimit = 100;
  static constexpr std::chrono::microseconds kBatchPause{100};
  // The pause after a fault, such as no memory: trying again at once would not help.
  static constexpr std::chrono::microseconds kAfterFault{10000};
  // A fault that lasts is told so often.
  static constexpr std::chrono::seconds kToldFor{10};
  // What stays behind is tried after one reconnect delay, then after twice as many, up to this.
  static constexpr int kMostWaits = 8;
  // What handling a payload longer than this leaves behind is given back to the system: one whose
  // body has more than 1 MiB, however long its header line, of which 64 KiB are read.
  static constexpr std::size_t kLargePayload = (std::size_t{1} << 20) + (std::size_t{64} << 10);
  // At most so often: it takes milliseconds.
  static constexpr std::chrono::seconds kTrimInterval{1};
  // What those that are longer than kKeptBytes leave behind is given back when none has come for
  // so long.
  static constexpr std::chrono::seconds kQuiet{10};

 protected:
  void InternalThreadEntry() override;

 private:
  using Clock = std::chrono::steady_clock;

  // Waits for chunks, takes one batch and delivers what it completes.
  void handleBatch();
  void trimMemory();
  std::optional<Clock::time_point> wakeUp() const;
  void catchUp();

  Parts parts_;
  std::vector<char> batch_;
  uint32_t drained_ = 0;
  uint32_t link_ = 0;  // the link that the parser's half-read frame, if any, came over
  std::optional<Clock::time_point> trimDue_;
  std::optional<Clock::time_point> quietDue_;
  Clock::time_point nextTrim_{};
  std::optional<Clock::time_point> catchUpDue_;
  int catchUpWait_ = 1;           // in reconnect delays
  Clock::time_point calmFrom_{};  // what fails later fails for the first time
  Clock::time_point nextTold_{};
};

}  // namespace valtor
