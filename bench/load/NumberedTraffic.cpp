#include "load/NumberedTraffic.h"

#include <atomic>
#include <charconv>
#include <cstring>

namespace valtor::bench {

namespace {

constexpr std::size_t kDigits = 20;  // of a number and of a time

void writeDigits(char* place, uint64_t value) {
  for (std::size_t i = kDigits; i-- > 0; value /= 10) {
    place[i] = static_cast<char>('0' + value % 10);
  }
}

// The digits; the highest number when something else stands there.
uint64_t readDigits(std::string_view text) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() ? value : UINT64_MAX;
}

}  // namespace

NumberedStream::NumberedStream(const TrafficShape& shape) {
  static std::atomic<int> streams{100'000};
  std::string payload = std::string("[\"") + shape.kind + "\", \"" + shape.path + "\", " +
                        std::to_string(shape.source) + ", 0, 0]\n{\"id\":\"load-" +
                        std::to_string(++streams) + "-";
  numberAt_ = payload.size();
  payload.append(kDigits, '0') += '-';
  timeAt_ = payload.size();
  payload.append(kDigits, '0') += "\",\"pad\":\"";
  const std::size_t ending = 2;
  while (payload.size() + ending < shape.size) {
    payload += static_cast<char>('a' + payload.size() % 26);
  }
  payload += "\"}";
  frame_ = std::to_string(payload.size()) + ":";
  payloadAt_ = frame_.size();
  frame_ += payload + ";";
}

std::string_view NumberedStream::nextFrame() {
  writeDigits(&frame_[payloadAt_ + numberAt_], made_++);
  writeDigits(&frame_[payloadAt_ + timeAt_], static_cast<uint64_t>(nowNs()));
  return frame_;
}

std::string_view NumberedStream::nextPayload() {
  const std::string_view framed = nextFrame();
  return framed.substr(payloadAt_, framed.size() - payloadAt_ - 1);
}

NumberedCheck::NumberedCheck(const NumberedStream& stream)
    : payload_(stream.frame_, stream.payloadAt_, stream.frame_.size() - stream.payloadAt_ - 1),
      streamEnd_(stream.numberAt_),
      numberAt_(stream.numberAt_),
      timeAt_(stream.timeAt_) {}

bool NumberedCheck::receive(std::string_view payload) {
  if (payload.substr(0, streamEnd_) != std::string_view(payload_).substr(0, streamEnd_)) {
    return false;
  }
  const int64_t now = nowNs();
  if (!isWhole(payload)) {
    ++damaged_;
    return true;
  }
  const uint64_t number = readDigits(payload.substr(numberAt_, kDigits));
  if (number < next_) {
    ++reordered_;
    return true;
  }
  if (number > next_) {
    ++gaps_;
    lastGapEnd_ = number;
  }
  next_ = number + 1;
  ++received_;
  delays_.add(static_cast<double>(
                  now - static_cast<int64_t>(readDigits(payload.substr(timeAt_, kDigits)))) /
              1e9);
  return true;
}

bool NumberedCheck::isWhole(std::string_view payload) const {
  const std::string_view expected = payload_;
  const std::size_t rest = timeAt_ + kDigits;
  return payload.size() == expected.size() && payload.substr(rest) == expected.substr(rest) &&
         readDigits(payload.substr(numberAt_, kDigits)) != UINT64_MAX &&
         readDigits(payload.substr(timeAt_, kDigits)) != UINT64_MAX;
}

}  // namespace valtor::bench
