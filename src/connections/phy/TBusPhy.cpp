#include "connections/phy/TBusPhy.h"

#include <utility>

namespace valtor {

TBusPhy::TBusPhy(std::string port)
    : ConnectionPointPhy(PhyTypeNames[kTBusPhy]), port_(std::move(port)) {}

int TBusPhy::loadFromJSON(const cJSON* /*item*/) { return -1; }

JSONPtr TBusPhy::toJSON() const {
  JSONPtr object = ConnectionPointPhy::toJSON();
  cJSON_AddStringToObject(object.get(), "port", port_.c_str());
  return object;
}

}  // namespace valtor
