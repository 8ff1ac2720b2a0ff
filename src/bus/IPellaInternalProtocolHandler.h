#pragma once

#include <memory>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "bus/message/PellInternalMessage.h"

namespace valtor {

// Answers that a handler wants sent, in order. The client sends and destroys them.
using ResponseList = std::vector<std::unique_ptr<PellInternalMessage>>;

// A party that the interface client offers every received message. The client owns its handlers and
// calls them one at a time, under its handler lock: a handler must not call back into the client's
// list of handlers.
class IPellaInternalProtocolHandler {
 public:
  virtual ~IPellaInternalProtocolHandler() = default;

  // True when the handler took the message; it may append answers.
  virtual bool handleMessage(const PellInternalMessage& message, ResponseList& responses) = 0;

  // The handler's interface descriptions, an array for the login, or none. The caller owns it.
  virtual JSONPtr getInterfaceJSON() = 0;

  // Told on every change of the bus connection.
  virtual void onBusConnectionChanged(bool connected) { static_cast<void>(connected); }

  // Whether something could not be done, since memory or threads were lacking, that catchUp() tries
  // again.
  virtual bool isBehind() const { return false; }
  virtual void catchUp() {}
};

}  // namespace valtor
