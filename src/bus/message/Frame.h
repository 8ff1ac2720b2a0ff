#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace valtor {

class PellInternalMessage;

// A message as it goes over a link: framed once, shared by every link it goes to, never changed.
// Any thread may read it.
class Frame {
 public:
  // Takes over the bytes of a whole frame; the payload stands from the offset, which is in bytes
  // and at most their number, to the last byte but one.
  explicit Frame(std::string bytes, std::size_t payloadOffset);

  const char* data() const { return bytes_.data(); }
  std::size_t size() const { return bytes_.size(); }
  // Header line and body, as encodeFrom() gives them. Valid as long as the frame.
  std::string_view payload() const;

 private:
  const std::string bytes_;
  const std::size_t payloadOffset_;
};

using SharedFrame = std::shared_ptr<const Frame>;

// The message with this source connection id in its header line, in its frame: the bytes of
// frame(message.encodeFrom(sourceConnID)) and the same log line, but a received body is copied only
// once. Never null; throws std::bad_alloc when memory runs out.
SharedFrame frameOf(const PellInternalMessage& message, int32_t sourceConnID);

}  // namespace valtor
