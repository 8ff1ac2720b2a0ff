#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "bus/MyThreadClass.h"

namespace valtor {

class PellInternalClient;

// The processing side of a bus client: it drains the receive queue in batches, feeds the client's
// parser, and so runs every onMessage of the client, one message at a time and in order. The client
// owns it and outlives it.
class PellInternalClientMsgQThread : public MyThreadClass {
 public:
  explicit PellInternalClientMsgQThread(PellInternalClient& client);

  // Chunks are taken while the batch holds at most this many bytes.
  static constexpr std::size_t kBatchBytes = 10485760;
  // A batch ends, with a warning, when this many chunks were taken since it last happened; the
  // count goes on from batch to batch, so it happens at any load.
  static constexpr uint32_t kDrainedLimit = 100;
  static constexpr std::chrono::microseconds kBatchPause{100};
  static constexpr std::chrono::microseconds kIdlePause{10000};

 protected:
  void InternalThreadEntry() override;

 private:
  // Takes one batch and delivers what it completes; false when nothing waited.
  bool handleBatch();

  PellInternalClient& client_;
  std::vector<char> batch_;
  uint32_t drained_ = 0;
  uint32_t link_ = 0;  // the link that the parser's half-read frame, if any, came over
};

}  // namespace valtor
