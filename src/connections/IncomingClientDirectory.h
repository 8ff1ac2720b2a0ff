#pragma once

#include <string>

namespace valtor {

// Makes the folder of the incoming-client files (its path ends with "/") and opens it to everyone:
// other programs of the controller, of whatever user, exchange files there. What is a link, no
// folder, or belongs neither to root nor to this process's user stays as it is. Every failure is
// logged and nothing else happens. Called once, before anything is written there.
void prepareIncomingClientDirectory(const std::string& directory);

}  // namespace valtor
