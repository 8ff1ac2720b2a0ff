#pragma once

#include <cstdint>
#include <string>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// The base of the operations that somebody asks a router for: who asked. A plain value without a
// lock; the fields are read and written directly by the code that builds operations.
class AbstractOperation : public AbstractJSONBackedData {
 public:
  // Sets the user and remembers that there is one.
  void setUserID(std::int32_t user) {
    userID = user;
    hasUserID = true;
  }

  std::int32_t userID = 0;
  std::string sessionID;
  // Whether userID was loaded or set; only then is it rendered.
  bool hasUserID = false;

 protected:
  AbstractOperation() = default;
};

}  // namespace valtor
