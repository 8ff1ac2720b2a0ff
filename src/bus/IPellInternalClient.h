#pragma once

#include <string>

namespace valtor {

class PellInternalMessage;

// Whoever a message is sent through. It outlives those that it is handed to.
class IPellInternalMessageSender {
 public:
  virtual ~IPellInternalMessageSender() = default;
  // Sends a message in the sender's own name. 0 or -1; 0 also for a message that was dropped, with
  // a warning, because the link is down. Waits for the link's pace, and for room while its far end
  // takes something; throws std::bad_alloc. Any thread may call it, with locks that come before a
  // send lock.
  virtual int sendMessage(const PellInternalMessage& message) = 0;
};

class PellInternalMessageListener {
 public:
  virtual ~PellInternalMessageListener() = default;
  // Handles a received message, which is the caller's and lives for the call. One call at a time,
  // on the client's message-queue thread; what it throws is logged there. The result is not used.
  virtual int onMessage(const PellInternalMessage& message) = 0;
};

// What the layers above the bus need of a bus client.
class IPellInternalClient : public IPellInternalMessageSender, public PellInternalMessageListener {
 public:
  // Adds a path to what the client listens to, now and after every reconnection. A path that is
  // already listed changes nothing and sends nothing. Any thread may call it.
  virtual void subscribe(const std::string& path) = 0;
};

}  // namespace valtor
