#include "data/AbstractJSONTopLevelContainer.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "app/util/ErrnoText.h"
#include "app/util/UniqueDescriptor.h"

namespace valtor {
namespace {

constexpr mode_t kDirectoryMode = 0755;

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }  // NOLINT(*-owning-memory): the owner
};
using File = std::unique_ptr<FILE, FileCloser>;

std::string newCopyOf(const std::string& path) { return path + ".new"; }

std::string previousCopyOf(const std::string& path) { return path + ".old"; }

bool exists(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0;
}

// The error of the call that just failed. A stream may fail without one.
int lastError() { return errno != 0 ? errno : EIO; }

// Writes the new copy and waits until the disk has it: renamed without that, it could be an empty
// file after a power cut. 0, or why it failed, as an errno value.
int writeNewCopy(const std::string& path, const std::string& text) {
  errno = 0;
  File file(std::fopen(newCopyOf(path).c_str(), "wbe"));
  if (!file) {
    const int error = lastError();
    syslog(LOG_ERR, "Error - couldn't open file %s for writing\n", path.c_str());
    return error;
  }
  if (std::fwrite(text.data(), 1, text.size(), file.get()) != text.size() ||
      std::fflush(file.get()) != 0 || fsync(fileno(file.get())) != 0) {
    return lastError();
  }
  return std::fclose(file.release()) == 0 ? 0 : lastError();
}

// Looks before it opens: to open a FIFO would block, and a folder opens like a file.
File openForReading(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return File();
  }
  return File(std::fopen(path.c_str(), "rbe"));
}

// The whole content. The path is for the log lines only.
std::unique_ptr<char[]> readWhole(FILE* file, const std::string& path) {
  errno = 0;
  const long end = std::fseek(file, 0, SEEK_END) == 0 ? std::ftell(file) : -1;
  std::rewind(file);
  const auto size = static_cast<std::size_t>(end < 0 ? 0 : end);
  std::unique_ptr<char[]> content(new (std::nothrow) char[size + 1]);
  if (!content) {
    syslog(LOG_CRIT, "Memory error loading %s from disk: %s\n", path.c_str(),
           errnoText(ENOMEM).c_str());
    std::abort();
  }
  if (end < 0 || std::fread(content.get(), 1, size, file) != size) {
    syslog(LOG_CRIT, "Reading error loading %s from disk: %s\n", path.c_str(),
           errnoText(errno).c_str());
    std::abort();
  }
  content[size] = '\0';
  return content;
}

std::string fileIn(const std::string* directory, const std::string& name) {
  return (directory != nullptr ? *directory + "/" : std::string()) + name + ".json";
}

}  // namespace

AbstractJSONTopLevelContainer::AbstractJSONTopLevelContainer(const std::string& name)
    : AbstractJSONTopLevelContainer(name, nullptr) {}

AbstractJSONTopLevelContainer::AbstractJSONTopLevelContainer(const std::string& name,
                                                             const std::string* directory)
    : filePath_(fileIn(directory, name)), directory_(directory) {}

int AbstractJSONTopLevelContainer::save(bool keepPrevious) const {
  return filePath_.empty() ? 0 : saveToFile(filePath_.c_str(), keepPrevious);
}

int AbstractJSONTopLevelContainer::saveToFile(const char* path, bool keepPrevious) const {
  takeJSONFailure();
  const JSONPtr root(cJSON_CreateObject());
  if (!root) {
    syslog(LOG_CRIT, "%s container SAVE FAILED: could not alloc root JSON object for \"%s\".\n",
           getObjectName(), path);
    return -1;
  }
  // A document that lacks a member must never take the place of a whole one.
  JSONPtr object = toJSON();
  if (!object || cJSON_AddNumberToObject(root.get(), "version", version_) == nullptr ||
      takeJSONFailure() || cJSON_AddItemToObject(root.get(), getObjectName(), object.get()) == 0) {
    syslog(LOG_CRIT, "%s container SAVE FAILED: could not alloc JSON object for \"%s\".\n",
           getObjectName(), path);
    return -1;
  }
  static_cast<void>(object.release());  // The root owns it now.
  return writeToDisk(path, root.get(), keepPrevious);
}

int AbstractJSONTopLevelContainer::writeToDisk(const std::string& path, const cJSON* root,
                                               bool keepPrevious) const {
  if (directory_ != nullptr && !exists(*directory_)) {
    mkdir(directory_->c_str(), kDirectoryMode);
  }
  const bool moveAside = exists(path);
  const std::string text = printJSON(root, true);
  int error = ENOMEM;
  if (text.empty()) {
    syslog(LOG_CRIT, "%s container could not alloc memory to render \"%s\".\n", getObjectName(),
           path.c_str());
  } else {
    error = writeNewCopy(path, text);
  }
  if (error != 0) {
    syslog(LOG_CRIT, "%s container could not write \"%s\" (%d).\n", getObjectName(),
           newCopyOf(path).c_str(), error);
    return -1;
  }
  return moveIntoPlace(path, moveAside, keepPrevious);
}

// From here on a loader finds the file or its previous copy, whatever happens between two steps.
int AbstractJSONTopLevelContainer::moveIntoPlace(const std::string& path, bool moveAside,
                                                 bool keepPrevious) const {
  const std::string newCopy = newCopyOf(path);
  const std::string previous = previousCopyOf(path);
  if (moveAside && rename(path.c_str(), previous.c_str()) != 0) {
    syslog(LOG_CRIT, "%s container could not overwrite prev: rename \"%s -> %s\" failed (%d).\n",
           getObjectName(), path.c_str(), previous.c_str(), errno);
    return -1;
  }
  if (rename(newCopy.c_str(), path.c_str()) != 0) {
    syslog(LOG_CRIT, "%s container could not overwrite current: rename \"%s -> %s\" failed (%d).\n",
           getObjectName(), newCopy.c_str(), path.c_str(), errno);
    return -1;
  }
  // Before the previous copy goes: only now does the disk surely hold the file under its name.
  syncFolderOf(path);
  if (!keepPrevious && unlink(previous.c_str()) != 0 && errno != ENOENT) {
    syslog(LOG_CRIT, "%s container could not remove \"%s\" (%d).\n", getObjectName(),
           previous.c_str(), errno);
    return -1;
  }
  return 0;
}

// Makes the renames last. The content is safe either way, so a failure is no failed save.
void AbstractJSONTopLevelContainer::syncFolderOf(const std::string& path) const {
  const std::string::size_type slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const UniqueDescriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor.valid() || fsync(descriptor.get()) != 0) {
    syslog(LOG_WARNING, "%s container could not sync the folder \"%s\": %s.\n", getObjectName(),
           folder.c_str(), errnoText(errno).c_str());
  }
}

int AbstractJSONTopLevelContainer::load() {
  const JSONPtr document = readFromDisk(filePath_);
  if (!document) {
    syslog(LOG_ERR, "Not a valid JSON file: %s\n", filePath_.c_str());
    return -1;
  }
  if (const cJSON* version = cJSON_GetObjectItem(document.get(), "version"); version != nullptr) {
    version_ = version->valuedouble;
  }
  const cJSON* object = cJSON_GetObjectItem(document.get(), getObjectName());
  if (object == nullptr) {
    syslog(LOG_ERR, "Error decoding JSON object, path:%s, objectName:%s\n", filePath_.c_str(),
           getObjectName());
    return -1;
  }
  return loadFromJSON(object);
}

JSONPtr AbstractJSONTopLevelContainer::readFromDisk(const std::string& path) const {
  File file = openForReading(path);
  if (!file) {
    file = openForReading(previousCopyOf(path));
    if (!file) {
      syslog(LOG_CRIT, "%s container could not open \"%s\". Empty set used.\n", getObjectName(),
             path.c_str());
      return nullptr;
    }
    syslog(LOG_CRIT, "%s container could not open \"%s\". previous copy used.\n", getObjectName(),
           path.c_str());
  }
  return JSONPtr(cJSON_Parse(readWhole(file.get(), path).get()));
}

}  // namespace valtor
