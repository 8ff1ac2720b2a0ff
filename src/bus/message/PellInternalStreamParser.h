#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bus/message/PellInternalMessage.h"

namespace valtor {

// A payload in its frame: its length in ASCII decimal digits, ":", the payload, ";". The length
// counts bytes.
std::string frame(const std::string& payload);

// Cuts an arbitrary byte stream back into messages, whatever the sizes of the reads, and hands them
// on in batches. It recovers from every broken frame by looking for the next separator. A bad
// length, end or header is logged; stray bytes where a length is looked for go without a word. It
// never closes a connection. One per connection, driven by one thread at a time; it takes no lock
// and the callback runs on the caller's thread.
class PellInternalStreamParser {
 public:
  using MessageCallback = std::function<void(std::vector<PellInternalMessage>)>;

  // The longest payload that is read, in bytes.
  static constexpr int32_t kMaxPayload = 20'000'000;

  virtual ~PellInternalStreamParser() = default;

  // Consumes the bytes, all of them whatever happens; returns 0. Then calls the callback once with
  // every message that was finished, in order, if there is any and a callback is set; more often
  // when memory is short. Throws only what that last call throws. A message that there is no memory
  // for is lost, which is logged, and no other.
  int parse(const char* data, std::size_t length);

  void setMessageCallback(MessageCallback callback) { callback_ = std::move(callback); }

  // The length of the longest payload that was finished since the last call, in bytes; 0 for none.
  std::size_t takeLongest() { return std::exchange(longest_, 0); }
  // Whether a message was lost since the last call, since there was no memory for it.
  bool takeLost() { return std::exchange(lost_, false); }

  // Forgets the frame being read and what nobody took.
  void reset();

 private:
  // Looks for the next frame.
  void restart();
  std::size_t readLength(const char* data, std::size_t length);
  std::size_t readPayload(const char* data, std::size_t length);
  void storeHeaderByte(char byte);
  void handleSeparator();
  void handleCompleteMessage(std::unique_ptr<char[]> payload, std::size_t size);
  void keep(PellInternalMessage message);
  void handOver();

  static constexpr int kHeaderCapacity = 64;

  int32_t expectedLength_ = 0;
  uint32_t receivedCount_ = 0;
  std::unique_ptr<char[]> bodyBuffer_;  // none while a frame is skipped that could not be allocated
  std::array<char, kHeaderCapacity> headerBytes_{};
  int32_t headerCount_ = 0;
  enum class State { Length, Payload } state_ = State::Length;
  MessageCallback callback_;
  std::vector<PellInternalMessage> finished_;
  std::size_t longest_ = 0;
  bool lost_ = false;
};

}  // namespace valtor
