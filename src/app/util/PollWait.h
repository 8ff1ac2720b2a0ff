#pragma once

#include <chrono>
#include <poll.h>
#include <vector>

namespace valtor {

// Waits until one of the entries has an event, an error or a hang-up, at most until then; a time
// that has passed only looks. With ppoll(2), whose unit is the nanosecond: poll(2) would round the
// pace of a link to milliseconds. How many entries have events, 0 for none, -1 when a signal ended
// the wait.
int pollUntil(std::vector<pollfd>& entries, std::chrono::steady_clock::time_point until);

// The same for one descriptor: the events that came, 0 for none or a signal.
short pollUntil(int descriptor, short events, std::chrono::steady_clock::time_point until);

}  // namespace valtor
