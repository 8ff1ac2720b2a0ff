#include "connections/IncomingClientDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>

#include "app/util/ErrnoText.h"
#include "app/util/Files.h"

namespace valtor {

namespace {

// The text as one word of the shell.
std::string quotedForShell(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

// Whether the folder may be opened to everyone; the reason is logged when not.
bool isOurFolder(const std::string& directory) {
  // With its "/" at the end the path would name what a link points to.
  const std::string name = directory.substr(0, directory.find_last_not_of('/') + 1);
  struct stat status {};
  if (lstat(name.c_str(), &status) != 0) {
    syslog(LOG_ERR, "Cannot examine the folder %s, its mode stays: %s\n", name.c_str(),
           errnoText(errno).c_str());
    return false;
  }
  if (!S_ISDIR(status.st_mode)) {
    syslog(LOG_ERR, "%s is a link or no folder, its mode stays.\n", name.c_str());
    return false;
  }
  if (status.st_uid != 0 && status.st_uid != geteuid()) {
    syslog(LOG_ERR, "The folder %s belongs to user %lu, its mode stays.\n", name.c_str(),
           static_cast<unsigned long>(status.st_uid));
    return false;
  }
  return true;
}

}  // namespace

void prepareIncomingClientDirectory(const std::string& directory) {
  try {
    ensureDirectory(directory);
  } catch (const std::system_error& error) {
    syslog(LOG_ERR, "Cannot make the folder of the incoming-client files: %s\n", error.what());
    return;
  }
  if (!isOurFolder(directory)) {
    return;
  }
  const std::string command = "chmod 777 " + quotedForShell(directory);
  [[maybe_unused]] const int ignored = std::system(command.c_str());
}

}  // namespace valtor
