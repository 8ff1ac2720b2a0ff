#pragma once

#include <cstring>
#include <memory>
#include <string>

#include "bus/PellInternalMessage.h"

namespace valtor::test {

// A payload in the kind of buffer that a message takes over.
inline std::unique_ptr<char[]> payloadBuffer(const std::string& payload) {
  auto buffer = std::make_unique<char[]>(payload.size() + 1);
  std::memcpy(buffer.get(), payload.data(), payload.size());
  return buffer;
}

// The message that a payload decodes to.
inline PellInternalMessage received(const std::string& payload) {
  return PellInternalMessage(payloadBuffer(payload));
}

}  // namespace valtor::test
