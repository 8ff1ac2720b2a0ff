#pragma once

#include <string>

#include "message-node/MessageNode.h"

namespace valtor {

// The commands that a person or a script gives a running node, one a line.
extern const char* const kNodeCommandHelp;

struct CommandResult {
  std::string reply;  // lines, each with its line feed; empty when there is nothing to say
  bool quit = false;
};

// Carries one line out; a line that is no command, or lacks an argument, is answered with what is
// wrong. Blocks until the node has done it.
CommandResult executeCommand(MessageNode& node, const std::string& line);

}  // namespace valtor
