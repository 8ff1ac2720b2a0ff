#include "bus/message/MessageIdentifier.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <new>
#include <optional>
#include <syslog.h>
#include <unistd.h>

#include "app/util/Immortal.h"
#include "app/util/Mutex.h"
#include "app/util/Paths.h"
#include "app/util/UniqueDescriptor.h"

namespace valtor {

namespace {

struct Identifiers {
  Mutex mutex;
  // Unsigned, so that it may wrap; printed as a signed number.
  uint32_t counter VALTOR_GUARDED_BY(mutex) = 0;
  bool primed VALTOR_GUARDED_BY(mutex) = false;
  std::string host VALTOR_GUARDED_BY(mutex) = "*";  // until the address is known
};

Identifiers& identifiers() {
  static Immortal<Identifiers> instance;
  return *instance;
}

// What the file holds, read to its end: files of sysfs report a size that they do not have. None
// when it cannot be opened or read.
std::optional<std::string> readAddressFile(const char* path) {
  const UniqueDescriptor file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file.valid()) {
    return std::nullopt;
  }
  std::string content;
  std::array<char, 256> block{};
  while (true) {
    const ssize_t count = ::read(file.get(), block.data(), block.size());
    if (count > 0) {
      content.append(block.data(), static_cast<std::size_t>(count));
    } else if (count == 0) {
      return content;
    } else if (errno != EINTR) {
      return std::nullopt;
    }
  }
}

// The hardware address without its colons, or none. The file's line feed, its last byte, goes.
std::optional<std::string> readHostAddress() {
  const std::string& path = paths().hostAddressFile;
  std::optional<std::string> content = readAddressFile(path.c_str());
  if (!content) {
    syslog(LOG_USER | LOG_WARNING,
           "PellInternalClient::primeHostID could not open saved file: %s. Empty mac address "
           "used.\n",
           path.c_str());
    return std::nullopt;
  }
  if (!content->empty() && content->back() != '\0') {
    syslog(LOG_DEBUG, "%s terminated with'%c'.\n", path.c_str(), content->back());
    content->back() = '\0';
  }
  std::string address;
  for (const char c : content->substr(0, content->find('\0'))) {
    if (c != ':') {
      address += c;
    }
  }
  return address;
}

// An identifier without its host part would not be unique on the bus, so running out of memory here
// ends the process.
void primeHostID(std::string& host) {
  try {
    if (const std::optional<std::string> address = readHostAddress()) {
      host = std::to_string(getpid()) + "." + *address;
    }
  } catch (const std::bad_alloc&) {
    std::fputs("PellInternalClient::primeHostID Memory error", stderr);
    std::abort();
  }
}

}  // namespace

std::string nextMessageIdentifier() {
  Identifiers& shared = identifiers();
  const Locked lock(shared.mutex);
  if (!shared.primed) {
    primeHostID(shared.host);
    shared.primed = true;
  }
  return std::to_string(static_cast<int32_t>(shared.counter++)) + "@" + shared.host;
}

std::string hostOfIdentifier(const std::string& identifier) {
  const std::size_t point = identifier.find('.');
  return point == std::string::npos ? std::string() : identifier.substr(point + 1);
}

void resetMessageIdentifiersForTest() {
  Identifiers& shared = identifiers();
  const Locked lock(shared.mutex);
  shared.counter = 0;
  shared.primed = false;
  shared.host = std::string(1, '*');
}

}  // namespace valtor
