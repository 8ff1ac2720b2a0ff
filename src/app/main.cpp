#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <syslog.h>

#include "app/CommandLine.h"
#include "app/Daemon.h"
#include "app/SingleInstance.h"
#include "app/util/Console.h"
#include "app/util/StandardDescriptors.h"

int main(int argc, char** argv) {
  valtor::occupyStandardDescriptors(O_RDWR);  // inherited on purpose
  std::signal(SIGPIPE, SIG_IGN);  // a console pipe without a reader must not end the daemon
  valtor::initConsole();

  setlogmask(LOG_UPTO(LOG_INFO));
  const bool skipDatabase = valtor::followCommandLine(argc, argv);
  valtor::keepConsoleFromBlocking();
  syslog(LOG_INFO, "Valtor Remote Interface\n");
  syslog(LOG_INFO, "Build Date: %s %s\n", __DATE__, __TIME__);

  // Behind the fork of -d, so that the process that goes on holds it.
  valtor::SingleInstance instance;
  if (!instance.acquire()) {
    syslog(LOG_ERR, "Another valtor-remote runs on this machine, this one ends.\n");
    std::fputs("Another valtor-remote runs on this machine, this one ends.\n", stderr);
    return 1;
  }

  valtor::Daemon daemon(skipDatabase);
  daemon.start();
  daemon.wait();
  return 0;
}
