#pragma once

namespace valtor {

class PellInternalMessage;

// Puts a message on the local bus exactly as it is, its source connection id untouched. Never
// deleted through this interface. Any thread may call it.
class IPellaMessageForwarder {
 public:
  // 0 or -1, as IPellInternalMessageSender::sendMessage.
  virtual int forwardMessage(const PellInternalMessage& message) = 0;

 protected:
  ~IPellaMessageForwarder() = default;
};

}  // namespace valtor
