#pragma once

#include <string>

#include "app/util/OwnedJSON.h"

namespace valtor {

// The base of every object that the system exchanges as JSON: it fills itself from a cJSON item and
// renders itself as a new one. Value-like; each class says which lock, if any, guards its objects,
// otherwise one thread at a time uses them.
class AbstractJSONBackedData {
 public:
  virtual ~AbstractJSONBackedData();

  // Fills this object from the item, which stays the caller's and may be null. 0 on success, -1 on
  // failure. A class logs its own failures; what it took over before a failure may stay.
  virtual int loadFromJSON(const cJSON* item) = 0;

  // A new tree that the caller owns, or none when it cannot be built.
  virtual JSONPtr toJSON() const = 0;

  // Returns to the empty state. The base does nothing.
  virtual void reset();

  // A one-line description for log messages. The base has none.
  virtual std::string toString() const;

  // False until a class that keeps track of it has loaded successfully.
  bool isValid() const { return valid_; }

 protected:
  AbstractJSONBackedData() = default;
  AbstractJSONBackedData(const AbstractJSONBackedData&) = default;
  AbstractJSONBackedData(AbstractJSONBackedData&&) = default;
  AbstractJSONBackedData& operator=(const AbstractJSONBackedData&) = default;
  AbstractJSONBackedData& operator=(AbstractJSONBackedData&&) = default;

  void setValid(bool valid) { valid_ = valid; }

 private:
  bool valid_ = false;
};

}  // namespace valtor
