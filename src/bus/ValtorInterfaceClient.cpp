#include "bus/ValtorInterfaceClient.h"

#include <utility>

namespace valtor {

namespace {
constexpr int kConnID = 101;
}  // namespace

ValtorInterfaceClient::ValtorInterfaceClient(std::string host, int32_t port, std::string name,
                                             bool skipDatabase, std::string databaseDirectory)
    : AbstractConnectionPointManagerPELClient(std::move(host), port, std::move(name),
                                              std::move(databaseDirectory)),
      skipDatabase_(skipDatabase) {
  for (const char* path : {"db", "system", "route", "tally", "controller", "mdxi.system", "mv"}) {
    addSubscription(path);
  }
  setReceiveAll(true);
}

ValtorInterfaceClient::~ValtorInterfaceClient() {
  stopForDestruction();
  // Connection points and peers call this client's virtual operations until they are gone.
  removeAllHandlers();
}

int ValtorInterfaceClient::getConnID() { return kConnID; }

std::error_code ValtorInterfaceClient::setSkipDatabase(bool skip) {
  if (skipDatabase_.exchange(skip) != skip) {
    if (skip) {
      removeAllHandlers();
    } else {
      try {
        loadActiveDatabase();
      } catch (...) {
        skipDatabase_ = true;  // so that the next announcement of the role tries again
        throw;
      }
    }
  }
  return {0, std::system_category()};
}

int ValtorInterfaceClient::forwardMessage(const PellInternalMessage& message) {
  return sendConstMessage(message);
}

void ValtorInterfaceClient::loadActiveDatabase() {
  if (loader_) {
    loader_(*this);
  }
}

}  // namespace valtor
