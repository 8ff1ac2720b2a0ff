#pragma once

#include <string>

namespace valtor {

// The fixed places of the controller's file system that the daemon reads and writes. Every one
// begins with the build's path prefix (empty in packages). The strings live as long as the process.
// Any thread may read; setPathPrefix is for tests, and for tools that must not
// touch what is the daemon's; it runs before any other thread starts.
struct Paths {
  std::string databaseDirectory;        // the active databases, with a trailing "/"
  std::string containerDirectory;       // the managers' container files, without a trailing "/"
  std::string incomingClientDirectory;  // the incoming-client files, with a trailing "/"
  std::string statusSocket;             // where the daemon tells about itself
  std::string hostAddressFile;          // the hardware address of eth0 (sysfs, one line)
};

const Paths& paths();

// Puts every fixed path below another folder. Replaces the build's prefix.
void setPathPrefix(const std::string& prefix);

}  // namespace valtor
