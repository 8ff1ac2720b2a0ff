#include "valtor-status/FrameSkimmer.h"

#include <algorithm>
#include <charconv>

#include "bus/message/PellInternalStreamParser.h"

namespace valtor {

void FrameSkimmer::reset() {
  headSize_ = 0;
  missing_ = 0;
  endIsDue_ = false;
  whole_ = true;
  kept_.clear();
}

void FrameSkimmer::take(const char* data, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    if (missing_ > 0) {
      done += takePayload(data + done, size - done);
      continue;
    }
    const char byte = data[done++];
    if (!endIsDue_) {
      takeLengthByte(byte);
      continue;
    }
    if (byte == ';') {
      callback_(kept_, whole_);
    }
    reset();
  }
}

std::size_t FrameSkimmer::takePayload(const char* data, std::size_t size) {
  const std::size_t count = std::min(missing_, size);
  const std::size_t room = kKept - kept_.size();
  kept_.append(data, std::min(count, room));
  whole_ = whole_ && count <= room;
  missing_ -= count;
  endIsDue_ = missing_ == 0;
  return count;
}

void FrameSkimmer::takeLengthByte(char byte) {
  if (byte != ':') {
    head_.at(headSize_++) = byte;
    headSize_ = headSize_ == kLongestHead ? 0 : headSize_;
    return;
  }
  // What stands before the digits is left over from a broken frame.
  const char* const end = head_.data() + headSize_;
  const char* begin = end;
  while (begin != head_.data() && begin[-1] >= '0' && begin[-1] <= '9') {
    --begin;
  }
  std::size_t length = 0;
  const bool isNumber = std::from_chars(begin, end, length).ec == std::errc();
  headSize_ = 0;
  if (isNumber && length <= static_cast<std::size_t>(PellInternalStreamParser::kMaxPayload)) {
    missing_ = length;
  }
}

}  // namespace valtor
