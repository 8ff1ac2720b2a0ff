#pragma once

#include <optional>
#include <string>

namespace valtor {

// Where the bus is when the command line does not say so.
struct BusDefault {
  std::string text;
  std::string origin;  // for errors: the name of a variable, or a file and a line
};

// "host" or "port": from VALTOR_BUS_HOST or VALTOR_BUS_PORT, then from the files valtor-bus.conf in
// $XDG_CONFIG_HOME (or ~/.config) and in /etc. What is empty counts as not there. A file has lines
// NAME=VALUE, blank ones, and comments behind "#". Throws CommandFailure (usage) for any other
// line, and for a file that is there and cannot be read; in a folder that cannot be looked into
// there is none.
std::optional<BusDefault> busDefault(const std::string& name);

}  // namespace valtor
