#pragma once

#include <functional>

#include "valtor-bus/BusConnection.h"
#include "valtor-bus/Output.h"

namespace CLI {
class App;
}

namespace valtor {

// What a command line asks for: where the bus is, and a command, to be run once the whole command
// line has been understood. The command throws CommandFailure.
struct Request {
  BusSettings bus;
  std::function<void(BusConnection&, Output&)> command;
};

// Gives the parser every subcommand and option. Parsing fills the request, which has to stay where
// it is until then.
void addOptions(CLI::App& app, Request& request);

}  // namespace valtor
