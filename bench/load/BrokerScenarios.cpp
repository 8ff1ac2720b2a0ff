// The same messages at the same rates through two brokers joined by a bridge.

#include "load/Brokers.h"
#include "load/Scenario.h"

namespace valtor::bench {

namespace {

// Publishes at a rate, warm-up apart, until the time is over and everything has arrived.
void measure(const Run& run, EventLoop& loop, BrokerClient& publisher, NumberedStream& stream,
             NumberedCheck& check, double rate, const std::string& name) {
  const EventLoop::TimerId timer =
      loop.every(std::chrono::nanoseconds(static_cast<int64_t>(1e9 / rate)),
                 [&] { publisher.publish(stream.nextPayload()); });
  if (!loop.runUntil([&] { return check.received() > 0; }, std::chrono::seconds(15))) {
    throw std::runtime_error(name + ": nothing arrives");
  }
  loop.runFor(std::chrono::milliseconds(500));
  check.forgetDelays();
  // What was made before the subscription or the bridge stood is not this check's.
  const uint64_t missed = check.skipped();
  loop.runFor(run.seconds(8, 1));
  loop.cancel(timer);
  loop.runUntil([&] { return check.next() == stream.made(); }, std::chrono::seconds(5));
  if (check.next() != stream.made() || check.skipped() != missed) {
    run.results.fail(name + ": messages lost");
  }
  expectInOrder(run, check, name);
  recordDelays(run, name, check.delays());
}

struct Size {
  const char* name;
  std::size_t bytes;
  double rate;
};

constexpr Size kSizes[] = {
    {"300B", 300, 500}, {"16KiB", 16 * 1024, 200}, {"1MiB", 1024 * 1024, 20}};

void brokers(const Run& run) {
  for (const Size& size : kSizes) {
    EventLoop loop;
    Brokers brokers;
    BrokerClient publisher(loop, brokers.nearPort);
    BrokerClient atFar(loop, brokers.farPort);
    BrokerClient atNear(loop, brokers.nearPort);
    NumberedStream stream({"CMD", "route", 490, size.bytes});
    const std::string name = std::string("broker/") + size.name;

    NumberedCheck farCheck(stream);
    atFar.subscribe(farCheck);
    const uint64_t before = stream.made();
    const double cpu = brokers.near->cpuSeconds();
    measure(run, loop, publisher, stream, farCheck, size.rate, name + "/far");
    run.record(name + "/near/cpu",
               (brokers.near->cpuSeconds() - cpu) / static_cast<double>(stream.made() - before),
               "s");
    run.record(name + "/near/memory", brokers.near->residentBytes(), "bytes");
    atFar.unsubscribe();

    NumberedCheck nearCheck(stream);
    atNear.subscribe(nearCheck);
    measure(run, loop, publisher, stream, nearCheck, size.rate, name + "/near");
  }
}

}  // namespace

const std::vector<Scenario>& brokerScenarios() {
  static const std::vector<Scenario> scenarios{
      {"broker", "the same sizes and rates through two Mosquitto brokers joined by a bridge",
       brokers},
  };
  return scenarios;
}

}  // namespace valtor::bench
