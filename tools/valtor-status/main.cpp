#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <malloc.h>
#include <string>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "app/util/ErrnoText.h"
#include "app/util/StandardDescriptors.h"
#include "support/PrintableText.h"
#include "support/StatusSocket.h"
#include "valtor-status/BusParticipant.h"
#include "valtor-status/FollowRelays.h"
#include "valtor-status/LiveState.h"
#include "valtor-status/PageServer.h"
#include "valtor-status/StatusWatch.h"

namespace {

struct Options {
  valtor::PageServer::Settings page;
  valtor::BusPlace bus;
  std::string socket = valtor::defaultStatusSocket();
};

int32_t ownConnID() {
  constexpr int kFirst = 30000;
  constexpr int kCount = 2000;
  return kFirst + static_cast<int32_t>(getpid() % kCount);
}

void say(const std::string& text) {
  std::fprintf(stderr, "valtor-status: %s\n", valtor::printable(text).c_str());
}

void addOptions(CLI::App& app, Options& options) {
  app.set_version_flag("--version", "valtor-status " + options.page.version);
  app.add_option("-l,--listen", options.page.address,
                 "address to serve on; there is no login, so think twice")
      ->capture_default_str()
      ->type_name("ADDRESS");
  app.add_option("-P,--port", options.page.port, "port to serve on")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535))
      ->type_name("PORT");
  app.add_option("-n,--host-name", options.page.hostNames,
                 "a name under which browsers may ask for it, beside the address and localhost")
      ->type_name("NAME");
  app.add_option("-s,--socket", options.socket, "the daemon's status socket")
      ->capture_default_str()
      ->type_name("PATH");
  app.add_option("-H,--bus-host", options.bus.host, "host of the controller's node")
      ->capture_default_str()
      ->type_name("HOST");
  app.add_option("-p,--bus-port", options.bus.port, "port of the controller's node")
      ->capture_default_str()
      ->check(CLI::Range(1, 65535))
      ->type_name("PORT");
}

// One arena for all threads, and large documents go back to the system: the connections' threads
// would keep megabytes otherwise.
void keepMemorySmall() {
  constexpr int kMapped = 131072;
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, kMapped);
  mallopt(M_TRIM_THRESHOLD, kMapped);
}

int serve(const Options& options, const sigset_t& ends) {
  valtor::LiveState state(options.page.version);
  valtor::FollowRelays relays(options.socket);
  valtor::PageServer server(options.page, state, relays);
  if (!server.start()) {
    say("cannot serve on " + options.page.address + ":" + std::to_string(options.page.port) + ": " +
        (errno != 0 ? valtor::errnoText(errno) : "no such address"));
    return 1;
  }
  const bool bracket = options.page.address.find(':') != std::string::npos;
  say("serving on http://" + (bracket ? "[" + options.page.address + "]" : options.page.address) +
      ":" + std::to_string(server.port()) + "/");
  const valtor::BusParticipant bus(options.bus);
  const valtor::StatusWatch watch(
      options.socket, state, [&bus] { return bus.view(); }, say);
  int number = 0;
  sigwait(&ends, &number);
  state.end();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  valtor::occupyStandardDescriptors(O_RDONLY | O_CLOEXEC);
  keepMemorySmall();
  std::signal(SIGPIPE, SIG_IGN);
  // Before there are other threads: it is the main thread that they wait for.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  try {
    Options options;
    options.bus.connID = ownConnID();
    options.page.version = VALTOR_VERSION;
    CLI::App app("Show the bridge of this machine on a page, as it is.", "valtor-status");
    addOptions(app, options);
    CLI11_PARSE(app, argc, argv);
    return serve(options, ends);
  } catch (const std::exception& error) {
    say(error.what());
    return 1;
  }
}
