#pragma once

#include <chrono>

namespace valtor {

// The times of a bus client. Tests shorten them.
struct ClientTiming {
  // The least time between the starts of two attempts of the receive thread.
  std::chrono::microseconds reconnectDelay{1000000};
  // The longest that an attempt of the receive thread waits for the connection.
  std::chrono::milliseconds attempt{3000};
  // The same for the owner's attempt in connect().
  std::chrono::milliseconds ownerAttempt{3000};
  // Traffic that arrives later than this after the last keep-alive triggers one.
  std::chrono::microseconds keepAlive{20999999};
  // The socket's receive time-out; 0 is none. Ten of them in a row end the link.
  std::chrono::milliseconds receiveTimeout{0};
};

}  // namespace valtor
