#pragma once

#include <string>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The tie between one device and the connection point through which it is reached: built from the
// "deviceConnection" members of bus messages, kept by connection points. A plain value that owns
// all it holds; it has no lock, so a holder that shares it guards it. The loader logs nothing.
class DeviceConnectionDetails : public AbstractJSONBackedData {
 public:
  DeviceConnectionDetails() = default;
  DeviceConnectionDetails(std::string connectionPoint, std::string uniqueID, std::string family,
                          std::string type, std::string name);

  // Takes over every member that is there; an absent one leaves its field alone. 0 when "type",
  // "name", "uniqueID" and "connectionPoint" were all there as strings, else -1, and isValid() says
  // the same from then on.
  int loadFromJSON(const cJSON* item) override;
  // {"type", "family", "name", "uniqueID", "connectionPoint"} and, where there are any, "details".
  JSONPtr toJSON() const override;

  // The unique ID of the connection point.
  const std::string& getConnectionPoint() const { return connectionPoint_; }
  // The device's own.
  const std::string& getUniqueID() const { return uniqueID_; }
  const std::string& getFamily() const { return family_; }
  const std::string& getType() const { return type_; }
  const std::string& getName() const { return name_; }
  // Any JSON value as compact text; empty when there is none.
  const std::string& getDetails() const { return details_; }

 private:
  std::string connectionPoint_;
  std::string uniqueID_;
  std::string family_;
  std::string type_;
  std::string name_;
  std::string details_;
};

}  // namespace valtor
