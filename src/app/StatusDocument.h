#pragma once

#include <string>

namespace valtor {

class ValtorInterfaceClient;

// How the daemon does, as one JSON object with a line feed: its roles and links, what each router
// gets and sends, what crosses the bridge, what went wrong. Times are seconds since the epoch.
// Called on the thread that answers; takes no handler lock and sends nothing. The client outlives
// the call.
std::string statusDocument(const ValtorInterfaceClient& client);

}  // namespace valtor
