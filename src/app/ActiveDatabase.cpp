#include "app/ActiveDatabase.h"

#include <exception>
#include <memory>
#include <string>
#include <syslog.h>
#include <utility>

#include "app/util/Files.h"
#include "bus/ValtorInterfaceClient.h"
#include "peers/RemoteValtorConnectionPointManager.h"

namespace valtor {

void loadActiveDatabase(ValtorInterfaceClient& client) {
  const std::string directory = client.databaseDirectory();
  std::string name;
  try {
    name = readActiveDatabaseName(directory);
  } catch (const ReadFault&) {
    throw;  // there may be a name
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "Error loading active database: %s", error.what());
  }
  auto manager = std::make_unique<RemoteValtorConnectionPointManager>(
      "valtor", "valtor", client, client.remoteManagerMode() == 1);
  const std::string path = directory + name + "/" + "connectionPoints.json";
  manager->addConnectionPoints(loadConnectionPointsFromFile(*manager, path));
  manager->startConnectionPoints();
  client.addHandler(std::move(manager));
}

}  // namespace valtor
