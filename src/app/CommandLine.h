#pragma once

namespace valtor {

// Follows the options in the order given, each at the moment it is seen: -d detaches from the
// terminal, -v logs verbosely, -m skips the database until the bus reports that this controller is
// not on standby. An unknown option is reported by getopt and ignored, as are operands. Returns
// whether -m was given. For the main thread, before any other thread exists: -d forks.
bool followCommandLine(int argc, char* const* argv);

}  // namespace valtor
