#include "app/util/Paths.h"

#include "app/util/Immortal.h"

namespace valtor {

namespace {

Paths makePaths(const std::string& prefix) {
  Paths made;
  made.databaseDirectory = prefix + "/vorn/app/pella/node/userdata/databases/";
  made.containerDirectory = prefix + "/vorn/etc/active_connectionPoint";
  made.incomingClientDirectory = prefix + "/tmp/connections/";
  made.statusSocket = prefix + "/run/valtor-remote/status";
  made.hostAddressFile = prefix + "/sys/class/net/eth0/address";
  return made;
}

Paths& storage() {
  static Immortal<Paths> instance(makePaths(VALTOR_PATH_PREFIX));
  return *instance;
}

}  // namespace

const Paths& paths() { return storage(); }

void setPathPrefix(const std::string& prefix) { storage() = makePaths(prefix); }

}  // namespace valtor
