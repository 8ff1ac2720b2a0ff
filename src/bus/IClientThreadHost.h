#pragma once

#include <chrono>

namespace valtor {

// What the two threads of a bus client ask of it. The client outlives both.
class IClientThreadHost {
 public:
  // The first and the last thing that each thread does.
  virtual void threadRuns() = 0;
  virtual void threadEnds() = 0;

  // For the receive thread. Blocks while the owner makes its own attempt.
  virtual void waitForOwner() = 0;
  // One attempt to connect, log in and subscribe, which waits at most this
  // long for the connection: 0 or -1.
  virtual int attemptConnection(std::chrono::milliseconds longest) = 0;
  // Stores the state and tells the client's hook.
  virtual void linkChanged(int state, const char* reason) = 0;
  // False when it could not be sent.
  virtual bool sendKeepAlive() = 0;
  // Tells the hook a state that it could not take.
  virtual void repeatWhatFailed() = 0;

  // For the message-queue thread. Received messages were lost: memory ran out.
  virtual void messagesLost() = 0;
  // Whether work is behind, since memory, threads or room in a socket were lacking; if so it is
  // asked to catch up a while later, and again as long as that lasts. Takes no lock.
  virtual bool isBehind() = 0;
  virtual void catchUp() = 0;

 protected:
  ~IClientThreadHost() = default;
};

// Stands on the stack of each thread, from its first to its last step.
class ClientThreadScope {
 public:
  explicit ClientThreadScope(IClientThreadHost& host) : host_(host) { host_.threadRuns(); }
  ~ClientThreadScope() { host_.threadEnds(); }
  ClientThreadScope(const ClientThreadScope&) = delete;
  ClientThreadScope& operator=(const ClientThreadScope&) = delete;

 private:
  IClientThreadHost& host_;
};

}  // namespace valtor
