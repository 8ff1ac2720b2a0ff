#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace valtor {

// Cuts the byte stream of a bus into frames for somebody who only looks on: of a payload of up to
// 20 MB it keeps no more than the beginning. It finds its way back after a broken frame as the
// stream parser of the bus does. One for each connection; one thread at a time.
class FrameSkimmer {
 public:
  static constexpr std::size_t kKept = 16384;  // bytes of a payload

  // Gets each finished frame's payload, or, when that is longer than kKept, its beginning and
  // "whole" false. The text is good until it returns.
  using Callback = std::function<void(std::string_view payload, bool whole)>;

  explicit FrameSkimmer(Callback callback) : callback_(std::move(callback)) {}

  void take(const char* data, std::size_t size);
  // Forgets the frame that is being read.
  void reset();

 private:
  std::size_t takePayload(const char* data, std::size_t size);
  void takeLengthByte(char byte);

  static constexpr std::size_t kLongestHead = 64;

  Callback callback_;
  std::array<char, kLongestHead> head_{};
  std::size_t headSize_ = 0;
  std::size_t missing_ = 0;  // of the payload; 0 while a length is read, or its end is due
  bool endIsDue_ = false;
  bool whole_ = true;
  std::string kept_;
};

}  // namespace valtor
