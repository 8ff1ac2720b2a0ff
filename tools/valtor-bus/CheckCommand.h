#pragma once

#include <string>

#include "valtor-bus/Output.h"

namespace valtor {

// Reads a file of connection points with the daemon's own classes and prints a line for each entry:
// what the daemon would make of it, and why. Contacts nothing and writes nothing but the output.
// Throws CommandFailure when anything would be refused. Takes over the process's log and fixed
// paths, so it is the only command that a process runs.
void check(const std::string& file, Output& output);

}  // namespace valtor
