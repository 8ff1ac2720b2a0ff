#include "connections/ConnectionPointTCPServer.h"

#include <utility>

namespace valtor {

namespace {

// The integer value of a member, which must be there. Whether it was.
bool takeNumber(const cJSON* item, const char* name, uint32_t& value) {
  const cJSON* member = cJSON_GetObjectItem(item, name);
  if (member == nullptr) {
    return false;
  }
  value = static_cast<uint32_t>(member->valueint);
  return true;
}

}  // namespace

ConnectionPointTCPServer::ConnectionPointTCPServer(uint32_t port, std::string protocol)
    : port_(port), protocol_(std::move(protocol)) {}

int ConnectionPointTCPServer::loadFromJSON(const cJSON* item) {
  const cJSON* enabled = cJSON_GetObjectItem(item, "enabled");
  if (!cJSON_IsBool(enabled)) {
    return -1;
  }
  enabled_ = cJSON_IsTrue(enabled) != 0;
  if (!takeNumber(item, "port", port_)) {
    return -1;
  }
  if (const char* protocol = stringMember(item, "protocol"); protocol != nullptr) {
    protocol_ = protocol;
  }
  if (const char* type = stringMember(item, "type"); type != nullptr) {
    type_ = type;
  }
  const bool complete = takeNumber(item, "connectionLimit", connectionLimit_) &&
                        takeNumber(item, "numConnections", numConnections_);
  return complete ? 0 : -1;
}

JSONPtr ConnectionPointTCPServer::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddBoolToObject(object.get(), "enabled", enabled_ ? 1 : 0);
  cJSON_AddNumberToObject(object.get(), "port", port_);
  cJSON_AddStringToObject(object.get(), "protocol", protocol_.c_str());
  cJSON_AddStringToObject(object.get(), "type", type_.c_str());
  cJSON_AddNumberToObject(object.get(), "connectionLimit", connectionLimit_);
  cJSON_AddNumberToObject(object.get(), "numConnections", numConnections_);
  return object;
}

bool ConnectionPointTCPServer::isEqual(const ConnectionPointTCPServer* other) const {
  return other != nullptr && type_ == other->type_ && port_ == other->port_ &&
         protocol_ == other->protocol_ && connectionLimit_ == other->connectionLimit_ &&
         numConnections_ == other->numConnections_ && allow_ == other->allow_ &&
         block_ == other->block_;
}

void ConnectionPointTCPServer::assign(const ConnectionPointTCPServer* other) {
  enabled_ = other->enabled_;
  port_ = other->port_;
  protocol_ = other->protocol_;
  connectionLimit_ = other->connectionLimit_;
  numConnections_ = other->numConnections_;
  allow_ = other->allow_;
  block_ = other->block_;
}

}  // namespace valtor
