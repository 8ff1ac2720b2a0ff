// The same messages at the same rates through two brokers joined by a bridge.

#include <stdexcept>

#include "load/Brokers.h"
#include "load/Scenario.h"

namespace valtor::bench {

namespace {

// One load through a pair of brokers.
class BrokerRun {
 public:
  BrokerRun(const Run& run, const Load& load)
      : run_(run), load_(load), stream_({"CMD", "route", 490, load.bytes}) {}

  void measure() {
    BrokerClient atFar(loop_, brokers_.farPort);
    NumberedCheck farCheck(stream_);
    atFar.subscribe(farCheck);
    const std::string name = std::string("broker/") + load_.name;
    const double cpu = brokers_.near->cpuSeconds();
    publishTo(farCheck, name + "/far");
    run_.record(name + "/near/cpu",
                (brokers_.near->cpuSeconds() - cpu) / static_cast<double>(stream_.made()), "s");
    run_.record(name + "/near/memory", brokers_.near->residentBytes(), "bytes");
    atFar.unsubscribe();

    BrokerClient atNear(loop_, brokers_.nearPort);
    NumberedCheck nearCheck(stream_);
    atNear.subscribe(nearCheck);
    publishTo(nearCheck, name + "/near");
  }

 private:
  // Publishes, warm-up apart, until the time is over and everything has arrived.
  void publishTo(NumberedCheck& check, const std::string& name) {
    const EventLoop::TimerId timer =
        loop_.every(std::chrono::nanoseconds(static_cast<int64_t>(1e9 / load_.rate)),
                    [this] { publisher_.publish(stream_.nextPayload()); });
    if (!loop_.runUntil([&] { return check.received() > 0; }, std::chrono::seconds(15))) {
      throw std::runtime_error(name + ": nothing arrives");
    }
    loop_.runFor(std::chrono::milliseconds(500));
    check.forgetDelays();
    // What was made before the subscription or the bridge stood is not this check's.
    const uint64_t missed = check.skipped();
    loop_.runFor(run_.seconds(8, 1));
    loop_.cancel(timer);
    loop_.runUntil([&] { return check.next() == stream_.made(); }, std::chrono::seconds(5));
    if (check.next() != stream_.made() || check.skipped() != missed) {
      run_.results.fail(name + ": messages lost");
    }
    expectInOrder(run_, check, name);
    recordDelays(run_, name, check.delays());
  }

  const Run& run_;
  const Load& load_;
  EventLoop loop_;
  Brokers brokers_;
  NumberedStream stream_;
  BrokerClient publisher_{loop_, brokers_.nearPort};
};

void brokers(const Run& run) {
  for (const Load& load : kLoads) {
    BrokerRun(run, load).measure();
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
