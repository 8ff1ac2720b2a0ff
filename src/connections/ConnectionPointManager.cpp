#include "connections/ConnectionPointManager.h"

#include <array>
#include <cstdio>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/LineBudget.h"
#include "bus/message/RSPMessage.h"

namespace valtor {

namespace {

constexpr const char* kServerConnectionPoint = "serverConnectionPoint";
constexpr const char* kDeviceConnection = "deviceConnection";
constexpr const char* kInterfaceName = "ConnectionPointManager";
constexpr std::size_t kMaxTCPServers = 1000;  // descriptions are never removed
constexpr double kInterfaceVersion = 1.0;
constexpr std::size_t kInterfaceTextSize = 128;  // bytes, with the NUL at the end

JSONPtr describeInterface(const std::string& type) {
  JSONPtr details(cJSON_CreateObject());
  cJSON_AddStringToObject(details.get(), "type", type.c_str());
  return details;
}

}  // namespace

ConnectionPointManager::ConnectionPointManager(const std::string& name, const std::string& type,
                                               IPellInternalClient& busClient)
    : AbstractConnectionPointManager(name, type), busClient_(busClient) {
  supportedInterfaces_.push_back(std::make_unique<SupportedInterface>(
      kInterfaceName, kInterfaceVersion, describeInterface(type)));
}

ConnectionPointManager::~ConnectionPointManager() { stopCleanupThread(); }

const char* ConnectionPointManager::getObjectName() const { return "connectionPointManager"; }

int ConnectionPointManager::loadFromJSON(const cJSON* item) {
  AbstractConnectionPointManager::loadFromJSON(item);
  std::size_t heeded = 0;
  std::size_t ignored = 0;
  const cJSON* server = nullptr;
  cJSON_ArrayForEach(server, arrayMember(item, "tcpServer")) {
    if (heeded == kMaxTCPServers) {
      ++ignored;
    } else if (addOrUpdateTCPServer(server)) {
      ++heeded;
    }
  }
  if (ignored > 0) {
    syslog(LOG_WARNING, "%zu TCP servers at the end of a list are ignored, %zu may be stored.\n",
           ignored, kMaxTCPServers);
  }
  return 0;
}

JSONPtr ConnectionPointManager::toJSON() const {
  JSONPtr object = AbstractConnectionPointManager::toJSON();
  if (!tcpServers_.empty()) {
    JSONPtr servers(cJSON_CreateArray());
    for (const auto& server : tcpServers_) {
      addElement(servers.get(), server->toJSON());
    }
    addMember(object.get(), "tcpServer", std::move(servers));
  }
  return object;
}

bool ConnectionPointManager::startConnectionPoints() {
  connectionPoints().forEach([](ConnectionPoint& connectionPoint) {
    if (connectionPoint.isEnabled()) {
      connectionPoint.connect();
    }
  });
  return true;
}

// --- TCP servers ---------------------------------------------------------------------------------

bool ConnectionPointManager::hasNoTCPServers() const { return tcpServers_.empty(); }

std::unique_ptr<ConnectionPointTCPServer> ConnectionPointManager::createTCPServer(
    const cJSON* item) {
  auto server = std::make_unique<ConnectionPointTCPServer>();
  if (server->loadFromJSON(item) != 0) {
    return nullptr;
  }
  if (server->getType().empty()) {
    if (LineBudget::spendTrace()) {
      std::printf("Emtpy TCPServer Type Detected. Setting to %s\n", getManagerType().c_str());
    }
    server->setType(getManagerType());
  }
  return server;
}

bool ConnectionPointManager::addOrUpdateTCPServer(const cJSON* item) {
  std::unique_ptr<ConnectionPointTCPServer> described = createTCPServer(item);
  if (!described) {
    return false;
  }
  bool known = false;
  for (const auto& server : tcpServers_) {
    if (server->getType() != described->getType() ||
        server->getProtocol() != described->getProtocol()) {
      continue;
    }
    known = true;
    if (!server->isEqual(described.get())) {
      server->assign(described.get());
    }
  }
  if (!known && tcpServers_.size() < kMaxTCPServers) {
    tcpServers_.push_back(std::move(described));
  } else if (!known && LineBudget::spend()) {
    syslog(LOG_WARNING, "TCP server %s %s refused, %zu are stored already.\n",
           nameForLog(described->getType()).c_str(), nameForLog(described->getProtocol()).c_str(),
           kMaxTCPServers);
  }
  return true;
}

// --- Interfaces and requests ---------------------------------------------------------------------

JSONPtr ConnectionPointManager::getInterfaceJSON() { return getSupportedInterfacesJSON(); }

JSONPtr ConnectionPointManager::getSupportedInterfacesJSON() const {
  if (supportedInterfaces_.empty()) {
    return nullptr;
  }
  JSONPtr array(cJSON_CreateArray());
  for (const auto& supported : supportedInterfaces_) {
    addElement(array.get(), supported->toJSON());
  }
  return array;
}

std::string ConnectionPointManager::interfaceText() const {
  if (supportedInterfaces_.empty() || supportedInterfaces_.front()->name().empty()) {
    return {};
  }
  const SupportedInterface& supported = *supportedInterfaces_.front();
  std::array<char, kInterfaceTextSize> text{};
  if (const char* type = stringMember(supported.details(), "type"); type != nullptr) {
    std::snprintf(text.data(), text.size(), "%s.%s", type, supported.name().c_str());
  } else {
    std::snprintf(text.data(), text.size(), "%s", supported.name().c_str());
  }
  return text.data();
}

void ConnectionPointManager::answerDeviceConnections(const PellInternalMessage& message,
                                                     ResponseList& responses) {
  answer(responses, message, kDeviceConnection, getDeviceConnectionsJSON(false));
  const std::string text = interfaceText();
  if (!text.empty()) {
    cJSON_AddStringToObject(responses.back()->getBody(), "interface", text.c_str());
  }
}

bool ConnectionPointManager::handleGET(const PellInternalMessage& message,
                                       ResponseList& responses) {
  if (const auto device = addressedDevice(message)) {
    return !device->empty() && offerDeviceParam(*device, message);
  }
  bool taken = AbstractConnectionPointManager::handleGET(message, responses);
  bool anyServers = true;  // asked for once, however often they are named
  const cJSON* name = nullptr;
  cJSON_ArrayForEach(name, arrayMember(message.viewBody(), "objectName")) {
    const std::string_view text = textOf(name);
    if (text != kServerConnectionPoint && text != kDeviceConnection) {
      continue;
    }
    if (!hasRoomForAnswer(message)) {
      break;
    }
    if (text == kDeviceConnection) {
      answerDeviceConnections(message, responses);
      taken = true;
    } else if (JSONPtr servers = anyServers ? getServerConnectionPointsJSON() : nullptr) {
      answer(responses, message, kServerConnectionPoint, std::move(servers));
      taken = true;
    } else {
      anyServers = false;
    }
  }
  return taken;
}

}  // namespace valtor
