#include <csignal>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include "app/CommandLine.h"
#include "app/Daemon.h"
#include "app/util/Console.h"

namespace {

// Started without the standard streams, the first sockets would get their numbers: the console
// trace would go out on the bus, and a socket numbered 0 reads as none.
void occupyStandardDescriptors() {
  int descriptor = 0;
  do {
    descriptor = open("/dev/null", O_RDWR);  // NOLINT(android-cloexec-open): inherited on purpose
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor > STDERR_FILENO) {
    close(descriptor);
  }
}

}  // namespace

int main(int argc, char** argv) {
  occupyStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);  // a console pipe without a reader must not end the daemon
  valtor::initConsole();

  setlogmask(LOG_UPTO(LOG_INFO));
  const bool skipDatabase = valtor::followCommandLine(argc, argv);
  valtor::keepConsoleFromBlocking();
  syslog(LOG_INFO, "Valtor Remote Interface\n");
  syslog(LOG_INFO, "Build Date: %s %s\n", __DATE__, __TIME__);

  valtor::Daemon daemon(skipDatabase);
  daemon.start();
  daemon.wait();
  return 0;
}
