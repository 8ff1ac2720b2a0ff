// What it costs the daemon that somebody watches it on the live page, and what the page's server
// takes.

#include <array>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "app/util/Paths.h"
#include "load/Scenario.h"

namespace valtor::bench {

namespace {

constexpr uint16_t kPagePort = 15082;  // not the one that a server of this machine may have

// A browser that reads the stream of events, until that ends.
void readEvents() {
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(kPagePort);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  for (int i = 0; connect(socket, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0;
       ++i) {
    if (i == 100) {
      return;
    }
    usleep(100'000);
  }
  const std::string request =
      "GET /api/events HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(kPagePort) + "\r\n\r\n";
  if (write(socket, request.data(), request.size()) < 0) {
    return;
  }
  std::array<char, 65536> part{};
  while (read(socket, part.data(), part.size()) > 0) {
  }
}

// The page's server as it is shipped, with one browser.
struct Page {
  Process server{{VALTOR_STATUS_EXECUTABLE, "--port", std::to_string(kPagePort), "--socket",
                  paths().statusSocket}};
  Process browser{readEvents};
};

// What being asked takes of a daemon that has nothing else to do: little, and so measured apart,
// too.
void measureIdle(const Run& run, EventLoop& loop, const Bridge& bridge, const std::string& name) {
  loop.runFor(run.seconds(3, 1));
  const double cpu = bridge.daemon->cpuSeconds();
  const int64_t start = nowNs();
  loop.runFor(run.seconds(10, 1));
  run.record(
      name, 100e9 * (bridge.daemon->cpuSeconds() - cpu) / static_cast<double>(nowNs() - start), "");
}

// A thousand messages a second, six hundred of them to the routers, with the page and without it in
// turns: what else this machine does meets both alike.
void page(const Run& run) {
  EventLoop loop;
  Bridge bridge(loop, 8);
  measureIdle(run, loop, bridge, "page/without/idle");
  {
    const Page page;
    measureIdle(run, loop, bridge, "page/with/idle");
  }
  Flow down(loop, bridge.controller, bridge.routers(), {"CMD", "route", 490, 300});
  std::vector<std::unique_ptr<Flow>> up;
  for (Node* router : bridge.routers()) {
    up.push_back(std::make_unique<Flow>(loop, *router, std::vector<Node*>{&bridge.controller},
                                        TrafficShape{"NOT", "route", 100, 300}));
    up.back()->pace(50);
  }
  down.pace(75);
  const auto arrived = [&] {
    uint64_t sum = down.arrived();
    for (const auto& flow : up) {
      sum += flow->arrived();
    }
    return static_cast<double>(sum);
  };
  // Seconds of the daemon's CPU time a message.
  const auto measure = [&](const std::string& name) {
    down.forgetDelays();
    const double before = arrived();
    const double cpu = bridge.daemon->cpuSeconds();
    loop.runFor(run.seconds(6, 1));
    run.record(name + "/cpu", (bridge.daemon->cpuSeconds() - cpu) / (arrived() - before), "s");
    run.record(name + "/p50", down.delays().quantile(0.5), "s");
  };
  const auto settle = [&] { loop.runFor(run.seconds(2, 1)); };
  settle();
  for (int i = 0; i < run.pick(5, 1); ++i) {
    measure("page/without");
    {
      Page page;
      settle();
      const double cpu = page.server.cpuSeconds();
      const int64_t start = nowNs();
      measure("page/with");
      run.record("page/load",
                 100e9 * (page.server.cpuSeconds() - cpu) / static_cast<double>(nowNs() - start),
                 "");
      run.record("page/memory", page.server.residentBytes(), "bytes");
      if (!page.server.isAlive() || !page.browser.isAlive()) {
        run.results.fail("page: its server or its stream of events has ended");
      }
    }
    settle();
  }
  down.stop();
  expectWhole(run, loop, down, "page, to the routers");
  for (const auto& flow : up) {
    flow->stop();
    expectWhole(run, loop, *flow, "page, to the controller");
  }
  expectAlive(run, bridge, "page");
}

}  // namespace

const std::vector<Scenario>& pageScenarios() {
  static const std::vector<Scenario> scenarios{
      {"page", "1,000 messages a second with somebody at the live page and without, in turns",
       page},
  };
  return scenarios;
}

}  // namespace valtor::bench
