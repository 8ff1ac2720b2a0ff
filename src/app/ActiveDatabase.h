#pragma once

namespace valtor {

class ValtorInterfaceClient;

// Builds the manager of the remote routers from the active database, connects what the database
// lists, and hands the manager to the client as a handler. A database that cannot be read is logged
// and leaves a manager without connection points; without a name the file is looked for directly
// below the database directory. Throws ReadFault or std::bad_alloc when it may be read at another
// try. Runs on the main thread under the start-up gate and afterwards on
// the client's message-queue thread, never on both at once.
void loadActiveDatabase(ValtorInterfaceClient& client);

}  // namespace valtor
