#include "bus/message/Frame.h"

#include <utility>

#include "bus/message/PellInternalMessage.h"

namespace valtor {

Frame::Frame(std::string bytes, std::size_t payloadOffset)
    : bytes_(std::move(bytes)), payloadOffset_(payloadOffset) {}

std::string_view Frame::payload() const {
  return std::string_view(bytes_).substr(payloadOffset_, bytes_.size() - payloadOffset_ - 1);
}

SharedFrame frameOf(const PellInternalMessage& message, int32_t sourceConnID) {
  const HeaderLine written = message.writtenLine(sourceConnID);
  const std::string_view line = written.text();
  JSONText rendered;
  const std::string_view body = message.bodyBytes(rendered);
  const std::string length = std::to_string(line.size() + body.size());
  std::string bytes;
  bytes.reserve(length.size() + line.size() + body.size() + 2);
  bytes += length;
  bytes += ':';
  const std::size_t payloadOffset = bytes.size();
  bytes += line;
  bytes += body;
  bytes += ';';
  return std::make_shared<const Frame>(std::move(bytes), payloadOffset);
}

}  // namespace valtor
