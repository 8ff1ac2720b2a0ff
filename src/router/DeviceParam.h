#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "data/AbstractJSONBackedData.h"
#include "data/StatusCode.h"
#include "router/ParamOID.h"
#include "router/ParamStringValue.h"

namespace valtor {

// One parameter of a device with its value and how far its request has come. The JSON form is one
// member of an object: the parameter's path and its value; the device is not part of it. A plain
// value without a lock.
class DeviceParam : public AbstractJSONBackedData {
 public:
  DeviceParam() = default;
  DeviceParam(ParamOID paramOID, ParamStringValue paramValue)
      : oid(std::move(paramOID)), value(std::move(paramValue)) {}

  // Takes the name and the value of a member. -1 for a missing item or one without a name, as the
  // elements of an array are.
  int loadFromJSON(const cJSON* member) override;
  // An object that holds the one member.
  JSONPtr toJSON() const override;
  std::string toString() const override;

  // Whether the identifiers match (ParamOID::matches) and the value texts are equal.
  bool matches(const DeviceParam& other) const {
    return oid.matches(other.oid) && value.text == other.value.text;
  }

  // The device has answered: complete, and no longer pending.
  void markComplete() {
    complete = true;
    pending = false;
  }

  ParamOID oid;
  ParamStringValue value;
  // Carried and copied; no operation reads it.
  std::int32_t reserved = 3;
  // How the parameter's request ended, as in the status codes of bus responses.
  std::int32_t statusCode = kStatusOK;
  bool pending = false;
  bool complete = false;
};

}  // namespace valtor
