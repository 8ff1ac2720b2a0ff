#include "app/util/Files.h"

#include <cctype>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>
#include <syslog.h>
#include <system_error>
#include <unistd.h>

#include "app/util/UniqueDescriptor.h"

namespace valtor {

namespace {

// Opens for writing without following a link and without waiting for a reader, and truncates only
// what proved to be a regular file.
UniqueDescriptor openRegularForWriting(const std::string& path) {
  UniqueDescriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
  struct stat status {};
  if (!file.valid() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      ftruncate(file.get(), 0) != 0) {
    throw std::runtime_error("error while opening file: " + path);
  }
  return file;
}

void writeAll(int descriptor, const std::string& content, const std::string& path) {
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t count = ::write(descriptor, content.data() + done, content.size() - done);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      throw std::runtime_error("error while writing file: " + path);
    }
    done += static_cast<std::size_t>(count);
  }
}

// Of a text file that is read, in bytes. Ten thousand routers, which are all that there may be,
// take a tenth; something longer was never meant, and would take the machine's memory.
constexpr off_t kLongestFile = off_t{64} << 20;

// The error is that of the call that failed.
[[noreturn]] void throwUnreadable(const std::string& text, int error) {
  if (error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO) {
    throw ReadFault(text);
  }
  throw std::runtime_error(text);
}

}  // namespace

std::string readTextFile(const std::string& path, bool keepNewlines) {
  // Looked at first: opening a pipe that nobody writes would wait for ever. A folder opens, and
  // then cannot be read.
  struct stat status {};
  std::ifstream file;
  errno = 0;
  if (stat(path.c_str(), &status) == 0 && (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))) {
    file.open(path);
  }
  if (!file.is_open()) {
    throwUnreadable("error while opening file: " + path, errno);
  }
  if (status.st_size > kLongestFile && S_ISREG(status.st_mode)) {
    syslog(LOG_ERR, "A file of %lld bytes is too long to be read: %.1024s\n",
           static_cast<long long>(status.st_size), path.c_str());
    throw std::runtime_error("error while reading file: " + path);
  }
  std::string content;
  std::string line;
  while (std::getline(file, line)) {
    content += line;
    if (keepNewlines) {
      content += '\n';
    }
  }
  if (file.bad()) {
    throwUnreadable("error while reading file: " + path, errno);
  }
  return content;
}

void saveTextFile(const std::string& path, const std::string& content) {
  const auto start = std::chrono::system_clock::now();
  const UniqueDescriptor file = openRegularForWriting(path);
  writeAll(file.get(), content, path);
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::system_clock::now() - start);
  syslog(LOG_INFO, "%s (%s - %zu bytes) took %lld ms\n", "saveTextFile", path.c_str(),
         content.size(), static_cast<long long>(elapsed.count()));
}

void ensureDirectory(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    return;
  }
  if (mkdir(path.c_str(), 0700) != 0) {
    throw std::system_error(errno, std::generic_category(), "mkdir" + path);
  }
}

std::string& trimRight(std::string& text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0) {
    text.pop_back();
  }
  return text;
}

std::string readActiveDatabaseName(const std::string& databaseDirectory) {
  std::string name = readTextFile(databaseDirectory + "activeDatabase.json", false);
  return trimRight(name);
}

}  // namespace valtor
