#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "load/Samples.h"

namespace valtor::bench {

// What a stream of numbered messages looks like.
struct TrafficShape {
  const char* kind = "CMD";
  const char* path = "route";
  int32_t source = 490;
  std::size_t size = 300;  // bytes of a payload: header line and body
};

// Makes the messages of one stream: all alike but for a number, from 0, and the time at which they
// were made.
class NumberedStream {
 public:
  explicit NumberedStream(const TrafficShape& shape);

  // The next message in its frame; valid until the next call.
  std::string_view nextFrame();
  // The same without a frame.
  std::string_view nextPayload();
  uint64_t made() const { return made_; }

 private:
  friend class NumberedCheck;

  std::string frame_;
  std::size_t payloadAt_ = 0;  // in the frame
  std::size_t numberAt_ = 0;   // in the payload, as is the next
  std::size_t timeAt_ = 0;
  uint64_t made_ = 0;
};

// Looks at what arrives of one stream at one receiver: every byte, every number, and how long it
// took.
class NumberedCheck {
 public:
  explicit NumberedCheck(const NumberedStream& stream);

  // False when the payload is not of this stream.
  bool receive(std::string_view payload);

  uint64_t received() const { return received_; }
  // The number after the highest that has arrived.
  uint64_t next() const { return next_; }
  uint64_t skipped() const { return next_ - received_; }
  // How often numbers were skipped, whatever their count.
  uint64_t gaps() const { return gaps_; }
  // The number that came after the last of these; 0 when none was skipped.
  uint64_t lastGapEnd() const { return lastGapEnd_; }
  uint64_t reordered() const { return reordered_; }
  uint64_t damaged() const { return damaged_; }
  // Seconds from making to arrival.
  Samples& delays() { return delays_; }
  // Forgets the delays so far, not the numbers.
  void forgetDelays() { delays_ = Samples(); }

 private:
  bool isWhole(std::string_view payload) const;

  std::string payload_;  // what each looks like, but for number and time
  std::size_t streamEnd_;
  std::size_t numberAt_;
  std::size_t timeAt_;
  uint64_t next_ = 0;
  uint64_t received_ = 0;
  uint64_t gaps_ = 0;
  uint64_t lastGapEnd_ = 0;
  uint64_t reordered_ = 0;  // numbers that came after a higher one, or twice
  uint64_t damaged_ = 0;
  Samples delays_;
};

}  // namespace valtor::bench
