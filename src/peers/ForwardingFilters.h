#pragma once

#include <string>

#include "bus/message/PellInternalMessage.h"
#include "peers/FilterResult.h"

namespace valtor {

// The rules that a message meets when it crosses a bridge between the master bus and a peer bus.
// The rules of a set are tried in order and the first that blocks ends the test. A filter only
// looks: what passes crosses as the bytes that were received. Any thread may call these functions;
// they take no lock.

// Master to a peer of the node manager: responses, notifications, acknowledgements and requests
// other than commands.
FilterResult nodeMasterToPeer(const PellInternalMessage& message);

// Master to a remote router. dbRequestHost is the host whose database request this peer forwarded
// last, "" when it has forwarded none: a database response for another host is not the router's.
// Says on the console which system message it let pass and what the database rule cost.
FilterResult routerMasterToPeer(const PellInternalMessage& message,
                                const std::string& dbRequestHost);

// A peer of the node manager to the master: answers and notifications only.
FilterResult nodePeerToMaster(const PellInternalMessage& message);

// A remote router to the master: what its own controllers (connection ids 100 and 490) send, and
// commands of its panels (2 and 3), without the configuration of either side.
FilterResult routerPeerToMaster(const PellInternalMessage& message);

// Writes the console line about a blocked message; nothing when its header line is empty. The
// direction is "master->peer" or "peer->master"; a null rule reads "??".
void traceBlocked(const char* direction, const PellInternalMessage& message, const char* rule);

}  // namespace valtor
