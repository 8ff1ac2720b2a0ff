#pragma once

#include <string>

#include "valtor-status/LiveState.h"

namespace valtor {

// What is known now, in the text format 0.0.4 that Prometheus scrapes
// (https://prometheus.io/docs/instrumenting/exposition_formats/). While the daemon does not answer,
// what it would say is left out. A pure function.
std::string metricsText(const LiveState::Figures& figures, const std::string& version);

}  // namespace valtor
