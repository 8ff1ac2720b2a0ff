#include "connections/IncomingClientFile.h"

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <sys/stat.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/Files.h"
#include "app/util/Immortal.h"
#include "app/util/Mutex.h"
#include "app/util/Paths.h"

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

// Until it is there, or somebody else's.
void prepareFolderOnce() {
  static Immortal<Mutex> mutex;
  static bool prepared = false;
  const Locked lock(*mutex);
  prepared = prepared || IncomingClientFile::prepareFolder(paths().incomingClientDirectory);
}

}  // namespace

IncomingClientFile::IncomingClientFile(const std::string& managerName, std::string type)
    : path_(paths().incomingClientDirectory + managerName + "IncomingClientConnections.json"),
      type_(std::move(type)) {
  prepareFolderOnce();
}

void IncomingClientFile::write(const std::function<JSONPtr()>& render, bool force) {
  const Locked lock(lock_);
  forced_ = forced_ || force;
  try {
    takeJSONFailure();
    JSONPtr clients = render();
    requireWholeJSON();
    if (!clients && !forced_) {
      unsaved_ = false;
      return;
    }
    JSONPtr object(cJSON_CreateObject());
    addMember(object.get(), "serverConnectionPoint",
              clients ? std::move(clients) : JSONPtr(cJSON_CreateArray()));
    cJSON_AddStringToObject(object.get(), "type", type_.c_str());
    const std::string text = printJSON(object.get(), false);
    requireWholeJSON();
    prepareFolderOnce();
    saveTextFile(path_, text);
    unsaved_ = false;
    forced_ = false;
  } catch (const std::exception& error) {
    unsaved_ = true;
    syslog(LOG_ERR, "The list of incoming %s clients is not on disk: %s\n", type_.c_str(),
           error.what());
  }
}

bool IncomingClientFile::prepareFolder(const std::string& directory) {
  try {
    ensureDirectory(directory);
  } catch (const std::system_error& error) {
    syslog(LOG_ERR, "Cannot make the folder of the incoming-client files: %s\n", error.what());
    return false;
  }
  if (!isOurFolder(directory)) {
    return true;
  }
  const std::string command = "chmod 777 " + quotedForShell(directory);
  if (std::system(command.c_str()) != 0) {
    syslog(LOG_ERR, "The folder %s could not be opened to everyone.\n", directory.c_str());
    return false;
  }
  return true;
}

}  // namespace valtor
