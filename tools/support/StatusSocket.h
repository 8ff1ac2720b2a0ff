#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "app/util/UniqueDescriptor.h"

namespace valtor {

// The socket on which the daemon of this machine tells how it does: one JSON document for each
// connection, or the messages of a router for whoever asks to follow it. Any thread.

// Where a daemon of this build has it.
std::string defaultStatusSocket();

// A connection to it, non-blocking, or none, errno, and in "problem" what an operator should know:
// why there is a socket and no answer, "" when there is no socket at all.
UniqueDescriptor connectToStatus(const std::string& path, std::string& problem);

// What stands there now. Either text, at most "longest" bytes of whatever was said, or a problem as
// above; both are "" when there is no socket.
struct StatusAnswer {
  std::string text;
  std::string problem;
};
StatusAnswer askForStatus(const std::string& path, std::chrono::milliseconds time,
                          std::size_t longest);

}  // namespace valtor
