#include "app/util/StandardDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

namespace valtor {

void occupyStandardDescriptors(int flags) {
  int descriptor = 0;
  do {
    descriptor = open("/dev/null", flags);  // NOLINT(android-cloexec-open): the caller's choice
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) {
    close(descriptor);
  }
}

}  // namespace valtor
