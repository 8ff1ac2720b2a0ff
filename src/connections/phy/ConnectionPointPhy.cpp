#include "connections/phy/ConnectionPointPhy.h"

#include <cstdio>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/LineBudget.h"
#include "connections/phy/IPPhy.h"
#include "connections/phy/SerialPhy.h"
#include "connections/phy/TBusPhy.h"

namespace valtor {

namespace {

// A fresh phy of the class that a type name stands for, or none.
std::unique_ptr<ConnectionPointPhy> phyOfType(const std::string& type) {
  if (type == PhyTypeNames[kTCPPhy]) {
    return std::make_unique<TCPPhy>();
  }
  if (type == PhyTypeNames[kSerialPhy]) {
    return std::make_unique<SerialPhy>();
  }
  if (type == PhyTypeNames[kTBusPhy]) {
    return std::make_unique<TBusPhy>();
  }
  if (type == PhyTypeNames[kUDPPhy]) {
    return std::make_unique<UDPPhy>();
  }
  return nullptr;
}

}  // namespace

ConnectionPointPhy::ConnectionPointPhy(std::string type) : type_(std::move(type)) {}

std::unique_ptr<ConnectionPointPhy> ConnectionPointPhy::createFromJSON(const cJSON* item) {
  const char* type = stringMember(item, "type");
  if (type == nullptr) {
    if (LineBudget::spend()) {
      syslog(LOG_WARNING, "ConnectionPointPhy::loadFromJSON - type not specified.\n");
    }
    return nullptr;
  }
  std::unique_ptr<ConnectionPointPhy> phy = phyOfType(type);
  if (!phy) {
    if (LineBudget::spend()) {
      syslog(LOG_WARNING, "ConnectionPointPhy::loadFromJSON - unsupported type:%s\n",
             nameForLog(type).c_str());
    }
    return nullptr;
  }
  if (phy->loadFromJSON(item) != 0) {
    if (LineBudget::spend()) {
      syslog(LOG_WARNING, "ConnectionPointPhy::loadFromJSON - data parsing error:\n");
    }
    return nullptr;
  }
  return phy;
}

int ConnectionPointPhy::loadFromJSON(const cJSON* item) {
  const char* type = stringMember(item, "type");
  if (type == nullptr) {
    // The text names the IP phy, whose loader begins with this one.
    if (LineBudget::spend()) {
      syslog(LOG_WARNING, "IPPhy::loadFromJSON - type not specified.\n");
    }
    return -1;
  }
  type_ = type;
  return 0;
}

JSONPtr ConnectionPointPhy::toJSON() const {
  JSONPtr object(cJSON_CreateObject());
  cJSON_AddStringToObject(object.get(), "type", type_.c_str());
  return object;
}

bool ConnectionPointPhy::isEqual(const ConnectionPointPhy* other) const {
  return other != nullptr && type_ == other->type_;
}

int ConnectionPointPhy::openPhy() { return -1; }

void ConnectionPointPhy::closePhy(int /*fd*/) {
  std::printf("closePhy: %s\n", printJSON(toJSON().get(), false).c_str());
}

}  // namespace valtor
