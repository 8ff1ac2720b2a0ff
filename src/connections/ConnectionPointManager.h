#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connections/AbstractConnectionPointManager.h"
#include "connections/ConnectionPointTCPServer.h"
#include "router/SupportedInterface.h"

namespace valtor {

// The concrete connection-point manager: to the set and its requests it adds the descriptions of
// the TCP servers on which outside controllers connect, the interface with which it announces
// itself at login, and two more names for "GET". It owns the descriptions; the bus client is not
// its own and outlives it. The server list is changed only by whoever reloads the set and has no
// lock; the interfaces do not change.
class ConnectionPointManager : public AbstractConnectionPointManager {
 public:
  ConnectionPointManager(const std::string& name, const std::string& type,
                         IPellInternalClient& busClient);
  ~ConnectionPointManager() override;

  // Reloads the set, then adds or updates every server of the array "tcpServer". A server that is
  // no longer listed stays. Always 0.
  int loadFromJSON(const cJSON* item) override;
  // The core's members, then "tcpServer" when there is any.
  JSONPtr toJSON() const override;
  // "connectionPointManager"
  const char* getObjectName() const override;

  // Connects every enabled connection point, in the order of their unique IDs. Always true.
  bool startConnectionPoints() override;

  // A new array of the supported interfaces.
  JSONPtr getInterfaceJSON() override;
  virtual JSONPtr getSupportedInterfacesJSON() const;

  virtual bool hasNoTCPServers() const;
  // Takes the description over into the stored server of its type and protocol, or stores it;
  // whether it loaded.
  virtual bool addOrUpdateTCPServer(const cJSON* item);
  // A new server from a description, of this manager's type when it names none; none when the
  // description does not load.
  virtual std::unique_ptr<ConnectionPointTCPServer> createTCPServer(const cJSON* item);

 protected:
  bool handleGET(const PellInternalMessage& message, ResponseList& responses) override;

  IPellInternalClient& busClient() const { return busClient_; }

 private:
  void answerDeviceConnections(const PellInternalMessage& message, ResponseList& responses);
  // Which interface answers a listing of device connections: "type.name", or "" for none.
  std::string interfaceText() const;

  IPellInternalClient& busClient_;
  // In the order first seen; type and protocol together identify a server.
  std::vector<std::unique_ptr<ConnectionPointTCPServer>> tcpServers_;
  std::vector<std::unique_ptr<SupportedInterface>> supportedInterfaces_;
};

}  // namespace valtor
