#pragma once

#include <string>

#include "connections/phy/ConnectionPointPhy.h"

namespace valtor {

// A TBus link. It can be built in code, rendered and compared (by type alone), but nothing in a
// description is read for it: every load fails, so a description never yields one. Value-like,
// without a lock.
class TBusPhy : public ConnectionPointPhy {
 public:
  explicit TBusPhy(std::string port = {});

  // Always -1; logs nothing and changes nothing.
  int loadFromJSON(const cJSON* item) override;
  // {"type", "port"}
  JSONPtr toJSON() const override;

 private:
  std::string port_;
};

}  // namespace valtor
