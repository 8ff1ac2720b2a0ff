#include "bus/AbstractConnectionPointManagerPELClient.h"

#include <algorithm>
#include <exception>
#include <string_view>
#include <utility>

#include "bus/message/RSPMessage.h"
#include "bus/message/RequestMessages.h"

namespace valtor {

AbstractConnectionPointManagerPELClient::AbstractConnectionPointManagerPELClient(
    std::string host, int32_t port, std::string name, std::string databaseDirectory)
    : PellInternalClient(std::move(host), port, std::move(name)),
      databaseDirectory_(std::move(databaseDirectory)) {
  addSubscription("device");
}

AbstractConnectionPointManagerPELClient::~AbstractConnectionPointManagerPELClient() {
  stopForDestruction();
}

int AbstractConnectionPointManagerPELClient::onMessage(const PellInternalMessage& message) {
  gate_.wait(closingToken());
  if (isClosing()) {
    return 0;
  }
  PellInternalClient::onMessage(message);
  if (handleMasterState(message)) {
    return 0;
  }
  const Locked lock(handlerLock_);
  ResponseList responses;
  if (!offerLocked(message, responses)) {
    return 0;
  }
  if (responses.empty()) {
    sendMessage(RSPMessage(message, kStatusOK));
  }
  for (std::unique_ptr<PellInternalMessage>& response : responses) {
    sendMessage(*response);
    response.reset();
  }
  return 0;
}

bool AbstractConnectionPointManagerPELClient::handleMasterState(
    const PellInternalMessage& message) {
  const MessageKind kind = message.getKind();
  if (message.header.path != "system" || (kind != MessageKind::SET && kind != MessageKind::RSP)) {
    return false;
  }
  const char* role =
      stringMember(cJSON_GetObjectItem(message.viewBody(), "param"), "mdxMasterState");
  if (role == nullptr) {
    return false;
  }
  noteRole(std::string_view(role) == "standby");
  std::error_code error;
  try {
    error = setSkipDatabase(std::string_view(role) == "standby");
  } catch (...) {
    doubtRole();
    // Whoever announced the role learns that it was not taken on; the log says why.
    sendMessage(RSPMessage(message, kStatusBadRequest));
    throw;
  }
  sendMessage(RSPMessage(message, error ? kStatusBadRequest : kStatusOK));
  return true;
}

void AbstractConnectionPointManagerPELClient::noteRole(bool standby) {
  const char* const name = standby ? "standby" : "active";
  const Locked lock(roleLock_);
  if (std::string_view(role_.name) != name) {
    role_ = {name, std::chrono::system_clock::now()};
  }
}

AbstractConnectionPointManagerPELClient::Role AbstractConnectionPointManagerPELClient::role()
    const {
  const Locked lock(roleLock_);
  return role_;
}

std::string AbstractConnectionPointManagerPELClient::linkName() const {
  return "The controller's node at " + host() + ":" + std::to_string(port());
}

void AbstractConnectionPointManagerPELClient::onConnectionStateChanged(int state,
                                                                       const std::string& reason) {
  PellInternalClient::onConnectionStateChanged(state, reason);
  const Locked lock(handlerLock_);
  for (const auto& handler : handlers_) {
    handler->onBusConnectionChanged(state == 1);
  }
  askForRole();
}

void AbstractConnectionPointManagerPELClient::doubtRole() {
  roleInDoubt_ = true;
  wakeMessageThread();
}

void AbstractConnectionPointManagerPELClient::askForRole() {
  if (sendMessage(GETMessage("system", std::vector<std::string>{"mdxMasterState"})) != 0) {
    doubtRole();
  }
}

bool AbstractConnectionPointManagerPELClient::isBehind() {
  return PellInternalClient::isBehind() || roleInDoubt_ || handlersBehind_;
}

// After every call of a handler that may leave it behind.
void AbstractConnectionPointManagerPELClient::noteHandlers() {
  handlersBehind_ = std::any_of(handlers_.begin(), handlers_.end(),
                                [](const auto& handler) { return handler->isBehind(); });
  if (handlersBehind_) {
    wakeMessageThread();
  }
}

// What fails again is tried again; the log has said it.
void AbstractConnectionPointManagerPELClient::catchUp() {
  gate_.wait(closingToken());
  if (isClosing()) {
    return;
  }
  PellInternalClient::catchUp();
  const Locked lock(handlerLock_);
  for (const auto& handler : handlers_) {
    try {
      handler->catchUp();
    } catch (const std::exception&) {
    }
  }
  noteHandlers();
  try {
    if (roleInDoubt_.exchange(false) && isConnected()) {  // every link begins with that question
      askForRole();
    }
  } catch (const std::exception&) {
    doubtRole();
  }
}

JSONPtr AbstractConnectionPointManagerPELClient::buildLoginParameters() {
  JSONPtr parameters = PellInternalClient::buildLoginParameters();
  JSONPtr interfaces(cJSON_CreateArray());
  {
    const Locked lock(handlerLock_);
    for (const auto& handler : handlers_) {
      const JSONPtr described = handler->getInterfaceJSON();
      const cJSON* element = nullptr;
      cJSON_ArrayForEach(element, described.get()) {
        addElement(interfaces.get(), JSONPtr(cJSON_Duplicate(element, 1)));
      }
    }
  }
  if (interfaces && interfaces->child != nullptr) {
    addMember(parameters.get(), "interface", std::move(interfaces));
  }
  return parameters;
}

void AbstractConnectionPointManagerPELClient::addHandler(
    std::unique_ptr<IPellaInternalProtocolHandler> handler) {
  const Locked lock(handlerLock_);
  handlers_.push_back(std::move(handler));
  noteHandlers();
}

void AbstractConnectionPointManagerPELClient::removeAllHandlers() {
  std::vector<std::unique_ptr<IPellaInternalProtocolHandler>> removed;
  {
    const Locked lock(handlerLock_);
    removed.swap(handlers_);
    noteHandlers();
  }
  // Their destructors join threads that may report a link state, which takes the handler lock.
}

bool AbstractConnectionPointManagerPELClient::hasNoHandlers() {
  const Locked lock(handlerLock_);
  return handlers_.empty();
}

void AbstractConnectionPointManagerPELClient::forEachHandler(
    const std::function<void(IPellaInternalProtocolHandler&)>& function) {
  const Locked lock(handlerLock_);
  for (const auto& handler : handlers_) {
    function(*handler);
  }
  noteHandlers();
}

bool AbstractConnectionPointManagerPELClient::dispatchToHandlers(const PellInternalMessage& message,
                                                                 ResponseList& responses) {
  const Locked lock(handlerLock_);
  return offerLocked(message, responses);
}

bool AbstractConnectionPointManagerPELClient::offerLocked(const PellInternalMessage& message,
                                                          ResponseList& responses) {
  bool taken = false;
  try {
    for (const auto& handler : handlers_) {
      taken = handler->handleMessage(message, responses) || taken;
    }
  } catch (...) {
    noteHandlers();
    throw;
  }
  noteHandlers();
  return taken;
}

}  // namespace valtor
