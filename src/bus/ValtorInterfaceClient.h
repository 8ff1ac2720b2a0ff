#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <system_error>

#include "bus/AbstractConnectionPointManagerPELClient.h"
#include "bus/IPellaMessageForwarder.h"

namespace valtor {

// The client that the process is built around: connection id 101 on the controller's bus,
// subscribed to everything the daemon serves or bridges. It loads the active database when the
// controller's role says so and drops all handlers on a standby controller, and it is the way on
// which peer traffic reaches the local bus.
class ValtorInterfaceClient : public AbstractConnectionPointManagerPELClient,
                              public IPellaMessageForwarder {
 public:
  // What loadActiveDatabase does; it builds managers of the layers above and adds them with
  // addHandler.
  using DatabaseLoader = std::function<void(ValtorInterfaceClient&)>;

  ValtorInterfaceClient(std::string host, int32_t port, std::string name, bool skipDatabase,
                        std::string databaseDirectory);
  // Ends the threads, then destroys the handlers.
  ~ValtorInterfaceClient() override;

  int getConnID() override;
  // Stores the flag; when it changed, drops all handlers (true) or loads the database (false).
  // Never answers with an error. Throws what the loader throws; the flag is then true again, so
  // that the next announcement of the role tries again.
  std::error_code setSkipDatabase(bool skip) override;
  // Sends the message as it is.
  int forwardMessage(const PellInternalMessage& message) override;

  // Set before connect().
  void setDatabaseLoader(DatabaseLoader loader) { loader_ = std::move(loader); }
  void loadActiveDatabase();

  // 1: managers of remote routers refuse routers on the loopback address.
  int remoteManagerMode() const { return remoteManagerMode_; }
  void setRemoteManagerMode(int mode) { remoteManagerMode_ = mode; }

 private:
  std::atomic<bool> skipDatabase_;
  std::atomic<int> remoteManagerMode_{1};
  DatabaseLoader loader_;
};

}  // namespace valtor
