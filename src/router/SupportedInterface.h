#pragma once

#include <string>
#include <utility>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The record of one interface that the daemon announces at login: a name, a version and any JSON
// value as details. Owns the details; a copy has its own. A plain value without a lock.
class SupportedInterface : public AbstractJSONBackedData {
 public:
  SupportedInterface() = default;
  // details may be null.
  SupportedInterface(std::string name, double version, JSONPtr details);
  SupportedInterface(const SupportedInterface& other);
  SupportedInterface(SupportedInterface&&) = default;
  SupportedInterface& operator=(const SupportedInterface& other);
  SupportedInterface& operator=(SupportedInterface&&) = default;
  ~SupportedInterface() override;

  // "name" (a string) and "version" are required: -1 without them. Absent details leave the
  // present ones.
  int loadFromJSON(const cJSON* item) override;
  JSONPtr toJSON() const override;

  const std::string& name() const { return name_; }
  double version() const { return version_; }
  void setVersion(double version) { version_ = version; }
  // Null when there are none; valid until they are replaced.
  const cJSON* details() const { return details_.get(); }
  void setDetails(JSONPtr details) { details_ = std::move(details); }

 private:
  std::string name_;
  double version_ = 0;
  JSONPtr details_;
};

}  // namespace valtor
