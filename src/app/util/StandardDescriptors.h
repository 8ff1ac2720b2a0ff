#pragma once

namespace valtor {

// Puts /dev/null, opened with these flags of open(2), on those of descriptors 0 to 2 that a process
// was started without. Otherwise the first sockets get their numbers: what is printed would go out
// on the bus, and a socket numbered 0 reads as none. First thing in main.
void occupyStandardDescriptors(int flags);

}  // namespace valtor
