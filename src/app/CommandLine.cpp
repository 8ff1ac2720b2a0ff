#include "app/CommandLine.h"

#include <syslog.h>
#include <unistd.h>

namespace valtor {

bool followCommandLine(int argc, char* const* argv) {
  bool skipDatabase = false;
  // An int: where plain char is unsigned, a char would never equal -1.
  for (int option = 0; (option = getopt(argc, argv, "dvm")) != -1;) {
    switch (option) {
      case 'd':
        // A failure leaves the process on its terminal, which is no reason to stop.
        static_cast<void>(daemon(1, 0) == 0);
        break;
      case 'v':
        setlogmask(LOG_UPTO(LOG_DEBUG));
        syslog(LOG_INFO, "verbose logging enabled.\n");
        break;
      case 'm':
        skipDatabase = true;
        break;
      default:
        break;
    }
  }
  return skipDatabase;
}

}  // namespace valtor
