#include "connections/phy/IPPhy.h"

#include <arpa/inet.h>
#include <syslog.h>

#include "app/util/LineBudget.h"

namespace valtor {

namespace {

constexpr int32_t kHighestLoadedPort =
    65536;  // the loader's limit, one above the highest real port
constexpr int32_t kHighestPort = 65535;

bool isDottedAddress(const char* text) {
  in_addr address{};
  return text != nullptr && inet_pton(AF_INET, text, &address) == 1;
}

}  // namespace

int IPPhy::loadFromJSON(const cJSON* item) {
  if (ConnectionPointPhy::loadFromJSON(item) != 0) {
    return -1;
  }
  if (const cJSON* address = cJSON_GetObjectItem(item, "ipAddress"); address != nullptr) {
    const char* text = cJSON_GetStringValue(address);
    if (!isDottedAddress(text)) {
      if (LineBudget::spend()) {
        syslog(LOG_WARNING, "IPPhy::loadFromJSON - invalid IP Address.\n");
      }
      return -1;
    }
    ipAddress_ = text;
  }
  if (const cJSON* port = cJSON_GetObjectItem(item, "port"); port != nullptr) {
    port_ = port->valueint;
    if (port_ == 0 || port_ > kHighestLoadedPort) {
      if (LineBudget::spend()) {
        syslog(LOG_WARNING, "IPPhy::loadFromJSON - invalid port.\n");
      }
      return -1;
    }
  }
  if (const cJSON* server = cJSON_GetObjectItem(item, "server"); server != nullptr) {
    if (cJSON_IsBool(server)) {
      server_ = cJSON_IsTrue(server) ? 1 : 0;
    } else {
      if (LineBudget::spend()) {
        syslog(LOG_WARNING, "TCPPhy::loadFromJSON - invalid server type.\n");
      }
    }
  }
  return 0;
}

JSONPtr IPPhy::toJSON() const {
  JSONPtr object = ConnectionPointPhy::toJSON();
  cJSON_AddStringToObject(object.get(), "ipAddress", ipAddress_.c_str());
  cJSON_AddNumberToObject(object.get(), "port", port_);
  cJSON_AddBoolToObject(object.get(), "server", server_ == 1 ? 1 : 0);
  return object;
}

bool IPPhy::isEqual(const ConnectionPointPhy* other) const {
  const auto* ip = dynamic_cast<const IPPhy*>(other);
  return ip != nullptr && ConnectionPointPhy::isEqual(other) && port_ == ip->port_ &&
         ipAddress_ == ip->ipAddress_;
}

bool IPPhy::isConnectable() const {
  return !ipAddress_.empty() && port_ >= 1 && port_ <= kHighestPort;
}

}  // namespace valtor
