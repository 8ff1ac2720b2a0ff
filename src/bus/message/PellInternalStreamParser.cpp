#include "bus/message/PellInternalStreamParser.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <syslog.h>
#include <utility>

namespace valtor {

namespace {

constexpr char kSeparator = ':';
constexpr char kFooter = ';';

// The number in the digits that end the text; bytes before them are left over from a broken frame.
// Too many digits wrap around as 32-bit arithmetic does.
int32_t trailingNumber(const char* text, int32_t length) {
  uint32_t value = 0;
  uint32_t weight = 1;
  for (const char* digit = text + length; digit != text; weight *= 10) {
    --digit;
    if (*digit < '0' || *digit > '9') {
      break;
    }
    value += static_cast<uint32_t>(*digit - '0') * weight;
  }
  return static_cast<int32_t>(value);
}

}  // namespace

std::string frame(const std::string& payload) {
  std::string framed = std::to_string(payload.size());
  framed.reserve(framed.size() + payload.size() + 2);
  framed += kSeparator;
  framed += payload;
  framed += kFooter;
  return framed;
}

int PellInternalStreamParser::parse(const char* data, std::size_t length) {
  if (data == nullptr) {
    syslog(LOG_ERR, "PellInternalStreamParser - null data receive. \n");
    length = 0;
  }
  for (std::size_t done = 0; done < length;) {
    done += state_ == State::Length ? readLength(data + done, length - done)
                                    : readPayload(data + done, length - done);
  }
  handOver();
  return 0;
}

void PellInternalStreamParser::handOver() {
  if (!finished_.empty() && callback_) {
    callback_(std::exchange(finished_, {}));
  }
}

void PellInternalStreamParser::reset() {
  restart();
  finished_.clear();
}

void PellInternalStreamParser::restart() {
  headerCount_ = 0;
  state_ = State::Length;
  bodyBuffer_.reset();
  receivedCount_ = 0;
  expectedLength_ = 0;
}

void PellInternalStreamParser::storeHeaderByte(char byte) {
  headerBytes_[static_cast<std::size_t>(headerCount_)] = byte;
  if (++headerCount_ == kHeaderCapacity) {
    restart();
  }
}

std::size_t PellInternalStreamParser::readLength(const char* data, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    if (data[i] != kSeparator) {
      storeHeaderByte(data[i]);
      continue;
    }
    handleSeparator();
    if (state_ == State::Payload) {
      return i + 1;
    }
  }
  return length;
}

void PellInternalStreamParser::handleSeparator() {
  const int32_t length = trailingNumber(headerBytes_.data(), headerCount_);
  if (length > kMaxPayload) {
    syslog(LOG_CRIT, "PellInternalStreamParser length exceeds max header size=%d.\n", length);
    std::printf("PellInternalStreamParser length exceeds max header size=%d.\n", length);
    restart();
    storeHeaderByte(kSeparator);
    return;
  }
  if (length <= 0) {
    std::array<char, kHeaderCapacity + 1> shown{};
    std::copy_n(headerBytes_.data(), headerCount_, shown.data());
    syslog(LOG_CRIT, "PellInternalStreamParser invalid header length received=%d.(%.10s)\n", length,
           shown.data());
    std::printf("PellInternalStreamParser invalid header length received=%d. (%.10s)\n", length,
                shown.data());
    restart();
    storeHeaderByte(kSeparator);
    return;
  }
  expectedLength_ = length;
  receivedCount_ = 0;
  state_ = State::Payload;
  const auto size = static_cast<std::size_t>(length) + 1;
  // Not value-initialised: every byte but the last is written before it is read. No factory of an
  // owner answers a lack of memory with null.
  bodyBuffer_.reset(new (std::nothrow) char[size]);  // NOLINT(*-owning-memory)
  if (!bodyBuffer_) {
    lost_ = true;
    syslog(LOG_CRIT, "PellInternalStreamParser FAILED to allocate buffer of size=%d.\n",
           length + 1);
    std::printf("PellInternalStreamParser FAILED to allocate buffer of size=%d.\n", length + 1);
    return;
  }
  bodyBuffer_[size - 1] = '\0';
}

std::size_t PellInternalStreamParser::readPayload(const char* data, std::size_t length) {
  const std::size_t missing = static_cast<uint32_t>(expectedLength_) - receivedCount_;
  const std::size_t count = std::min(missing, length);
  if (bodyBuffer_) {
    std::memcpy(bodyBuffer_.get() + receivedCount_, data, count);
  }
  receivedCount_ += static_cast<uint32_t>(count);
  if (length <= missing) {
    return length;
  }
  const char footer = data[missing];
  const auto size = static_cast<std::size_t>(expectedLength_);
  longest_ = std::max(longest_, size);
  std::unique_ptr<char[]> payload = std::move(bodyBuffer_);
  restart();
  if (!payload) {
    return missing + 1;
  }
  if (footer == kFooter) {
    handleCompleteMessage(std::move(payload), size);
  } else {
    syslog(LOG_INFO, "PellInternalStreamParser invalid message footer:'%c'\n", footer);
  }
  return missing + 1;
}

void PellInternalStreamParser::handleCompleteMessage(std::unique_ptr<char[]> payload,
                                                     std::size_t size) {
  try {
    PellInternalMessage message(std::move(payload));
    // A header may fail after its kind was read, so the kind alone does not tell.
    if (message.isDecoded() && message.getKind() != MessageKind::Unknown &&
        message.header.sourceConnID >= 0 && message.header.destConnID >= 0) {
      message.setReceivedBytes(size);
      keep(std::move(message));
    } else {
      syslog(LOG_ERR, "PellInternalStreamParser::handleCompleteMessage() Bad Header\n");
    }
  } catch (const std::exception& error) {
    // Of the stream only this message is lost. Nothing here may allocate.
    lost_ = true;
    syslog(LOG_CRIT, "PellInternalStreamParser: a message of %zu bytes is lost: %s\n", size,
           error.what());
  }
}

// What there is no memory to gather is handed over in parts.
void PellInternalStreamParser::keep(PellInternalMessage message) {
  try {
    finished_.push_back(std::move(message));  // left as it is by a vector that cannot grow
  } catch (const std::bad_alloc&) {
    handOver();
    finished_.push_back(std::move(message));
  }
}

}  // namespace valtor
