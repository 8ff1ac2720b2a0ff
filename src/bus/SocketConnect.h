#pragma once

#include <chrono>
#include <functional>
#include <sys/socket.h>

namespace valtor {

// Connects a blocking socket, waiting at most this long, in slices of at most 20 ms between which
// giveUp is asked. Afterwards the socket is blocking again, whatever the outcome. 0, or an errno
// value: ETIMEDOUT when the time was up, ECANCELED when giveUp answered true.
int connectWithin(int socket, const sockaddr* address, socklen_t length,
                  std::chrono::milliseconds longest, const std::function<bool()>& giveUp);

}  // namespace valtor
