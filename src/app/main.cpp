#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <malloc.h>
#include <memory>
#include <pthread.h>
#include <syslog.h>

#include "app/CommandLine.h"
#include "app/Daemon.h"
#include "app/SingleInstance.h"
#include "app/util/Console.h"
#include "app/util/StandardDescriptors.h"

namespace {

// What threads get as the default. With the usual 8 MiB two threads for each of 200 routers fill
// the address space of a 32-bit machine. The deepest use is 133 KiB: a body that is nested as deep
// as bodies are read, 1000 levels, is printed.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
// A sanitizer keeps much of its own there.
constexpr std::size_t kThreadStack = std::size_t{8} << 20;
#else
constexpr std::size_t kThreadStack = std::size_t{512} << 10;
#endif

// Where it fails the usual size stays.
void limitThreadStacks() {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) == 0) {
    pthread_attr_setstacksize(&attributes, kThreadStack);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
  }
}

// One arena for all threads. With several a processor, as by default, what one thread frees is of
// no use to another, and a daemon of many threads that runs for years collects holes in each. It
// costs no time that could be measured, with 64 routers at their pace either.
//
// What is free at the end of the arena stays, up to kKept bytes: by default it would go back to the
// system and come again with each body of 1 MiB, whose 500 page faults took longer than all that is
// done with it. That ends the growth of the other threshold (mallopt(3)), beyond which a block is
// mapped by itself: it stays at 128 KiB unless it is set as well. PellInternalClientMsgQThread
// gives back what stays when it is no longer wanted.
void shareMemory() {
  constexpr int kKept = 8 << 20;
  constexpr int kMapped = 2 << 20;
  constexpr int kMapped32 = 512 << 10;  // the most that an older C library of 32 bits takes
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_TRIM_THRESHOLD, kKept);
  if (mallopt(M_MMAP_THRESHOLD, kMapped) == 0) {
    mallopt(M_MMAP_THRESHOLD, kMapped32);
  }
}

int run(int argc, char** argv) {
  valtor::occupyStandardDescriptors(O_RDWR);  // inherited on purpose
  std::signal(SIGPIPE, SIG_IGN);  // a console pipe without a reader must not end the daemon
  valtor::initConsole();
  limitThreadStacks();
  shareMemory();

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

  auto daemon = std::make_unique<valtor::Daemon>(skipDatabase);
  try {
    daemon->start();
  } catch (...) {
    // To end it takes memory too.
    static_cast<void>(daemon.release());  // NOLINT(bugprone-unused-return-value)
    throw;
  }
  daemon->wait();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    syslog(LOG_CRIT, "The start failed, the process ends: %s\n", error.what());
  }
  std::_Exit(EXIT_FAILURE);  // threads may be running
}
