#pragma once

#include <string>

namespace valtor {

// A new process-wide unique message identifier: a counter from 0, "@", and the host identity (the
// process id, ".", and the hardware address of eth0 without colons; "*" when that cannot be read).
// Any thread may call it.
std::string nextMessageIdentifier();

// The part of an identifier behind its first ".", which tells hosts apart; "" without one.
std::string hostOfIdentifier(const std::string& identifier);

// Makes the host identity be read again at the next identifier and the counter start from 0. For
// tests only; no other thread may build messages meanwhile.
void resetMessageIdentifiersForTest();

}  // namespace valtor
