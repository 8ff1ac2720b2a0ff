#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "app/util/FairMutex.h"
#include "app/util/Mutex.h"
#include "app/util/StartGate.h"
#include "bus/IPellaInternalProtocolHandler.h"
#include "bus/PellInternalClient.h"

namespace valtor {

// A bus client that hosts protocol handlers: it offers them every received message, sends their
// answers, announces their interfaces at login and tells them about the link. It also follows the
// controller's role on the bus ("mdxMasterState").
//
// The client owns its handlers. The handler lock is held while handlers work and while their
// answers are sent; a handler must not call back into the list operations.
class AbstractConnectionPointManagerPELClient : public PellInternalClient {
 public:
  AbstractConnectionPointManagerPELClient(std::string host, int32_t port, std::string name,
                                          std::string databaseDirectory);
  ~AbstractConnectionPointManagerPELClient() override;

  int onMessage(const PellInternalMessage& message) override;
  void onConnectionStateChanged(int state, const std::string& reason) override;
  JSONPtr buildLoginParameters() override;

  // Told about every role on the bus: true for "standby". When it answers with an error or throws,
  // whoever sent the role is answered 400 instead of 200.
  virtual std::error_code setSkipDatabase(bool skip) = 0;

  void addHandler(std::unique_ptr<IPellaInternalProtocolHandler> handler);
  // Destroys every handler, without holding the handler lock meanwhile.
  void removeAllHandlers();
  bool hasNoHandlers();
  void forEachHandler(const std::function<void(IPellaInternalProtocolHandler&)>& function);
  // Offers the message to every handler in order, also after one took it; whether any did.
  bool dispatchToHandlers(const PellInternalMessage& message, ResponseList& responses);

  // The controller's role as it was announced last: "active" or "standby", and "unknown" before.
  struct Role {
    const char* name = "unknown";
    std::chrono::system_clock::time_point since = std::chrono::system_clock::now();
  };
  Role role() const;

  std::string linkName() const override;

  const std::string& databaseDirectory() const { return databaseDirectory_; }

  // The role may have been missed, or not been followed: the bus is asked for it a while later. Any
  // thread.
  void doubtRole();

  // Holds back every received message until opened; shut by start-up before connect().
  StartGate& startGate() { return gate_; }

 private:
  void messagesLost() override { doubtRole(); }
  // Nothing is caught up with while the start-up gate is shut.
  bool isBehind() override;
  void catchUp() override;
  void askForRole();
  void noteRole(bool standby);
  bool handleMasterState(const PellInternalMessage& message);
  bool offerLocked(const PellInternalMessage& message, ResponseList& responses)
      VALTOR_REQUIRES(handlerLock_);
  void noteHandlers() VALTOR_REQUIRES(handlerLock_);

  const std::string databaseDirectory_;
  StartGate gate_;
  std::atomic<bool> roleInDoubt_{false};
  std::atomic<bool> handlersBehind_{false};  // written under handlerLock_
  mutable Mutex roleLock_;                   // a leaf
  Role role_ VALTOR_GUARDED_BY(roleLock_);
  FairMutex handlerLock_;  // the receive thread has its turn behind any backlog of messages
  std::vector<std::unique_ptr<IPellaInternalProtocolHandler>> handlers_
      VALTOR_GUARDED_BY(handlerLock_);
};

}  // namespace valtor
