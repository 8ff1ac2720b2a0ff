#include "load/Scenario.h"

namespace valtor::bench {

const std::vector<Scenario>& brokerScenarios() {
  static const std::vector<Scenario> none;
  return none;
}

}  // namespace valtor::bench
