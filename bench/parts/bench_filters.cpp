// The rules of the bridge, and the one that looks for a body's "id".

#include <benchmark/benchmark.h>
#include <memory>
#include <string>

#include "parts/AllocationCount.h"
#include "peers/BridgeWatch.h"
#include "peers/DatabaseIdHandler.h"
#include "peers/ForwardingFilters.h"

namespace {

using namespace valtor;
using bench::AllocationCount;

PellInternalMessage received(const std::string& payload) {
  auto buffer = std::make_unique<char[]>(payload.size() + 1);
  payload.copy(buffer.get(), payload.size());
  return PellInternalMessage(std::move(buffer));
}

const char* const kCommand = "[\"CMD\", \"route\", 490, 0, 0]\n{\"id\":\"1@2.aa\",\"take\":[]}";

void BM_FilterToRouter(benchmark::State& state) {
  const PellInternalMessage message = received(kCommand);
  const AllocationCount count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(routerMasterToPeer(message, "aa"));
  }
}
BENCHMARK(BM_FilterToRouter);

void BM_FilterFromRouter(benchmark::State& state) {
  const PellInternalMessage message = received(kCommand);
  const AllocationCount count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(routerPeerToMaster(message));
  }
}
BENCHMARK(BM_FilterFromRouter);

// The most costly test: it looks into the body, which is parsed for it once a message.
void BM_FilterThatParses(benchmark::State& state) {
  const std::string payload =
      "[\"GET\", \"device\", 490, 0, 0]\n{\"id\":\"1@2.aa\",\"objectName\":[\"connectionPoint\"]}";
  const AllocationCount count(state);
  for (auto _ : state) {
    const PellInternalMessage message = received(payload);
    benchmark::DoNotOptimize(routerMasterToPeer(message, "aa"));
  }
}
BENCHMARK(BM_FilterThatParses);

// What the status counts of a message that crosses to eight routers: kind and path, whether it goes
// round in circles, and a look whether somebody follows. Beside it the message's whole way from
// received chunk to framed output is measured with the messages.
void BM_Watch(benchmark::State& state) {
  std::string body = "\n{\"id\":\"1000000@2.aa\",\"pad\":\"" + std::string(250, 'x') + "\"}";
  PellInternalMessage message = received("[\"NOT\", \"tally\", 100, 0, 0]" + body);
  message.setReceivedBytes(300);
  BridgeWatch watch;
  for (int i = 0; i < 20; ++i) {  // the pair looked for is not the first
    watch.crossings.add(Direction::ToRouters, MessageKind::CMD, "p" + std::to_string(i), 1);
  }
  auto now = LoopWatch::Clock::now();
  const AllocationCount count(state);
  for (auto _ : state) {
    now += std::chrono::seconds(11);  // never in circles
    watch.crossings.add(Direction::ToRouters, message.getKind(), message.header.path, 300);
    watch.loops.note(message, nullptr, nullptr, now);
    for (int router = 0; router < 8; ++router) {
      benchmark::DoNotOptimize(watch.tap.isFollowed());
    }
  }
}
BENCHMARK(BM_Watch);

// A database answer of 1 MiB whose "id" stands first, or last.
void BM_BodyId(benchmark::State& state) {
  std::string sources = "\"param\":{\"logicalSources\":[";
  for (int i = 0; sources.size() < std::size_t{1024} * 1024; ++i) {
    sources += (i > 0 ? ",{\"id\":" : "{\"id\":") + std::to_string(i) + ",\"name\":\"Camera\"}";
  }
  sources += "]}";
  const std::string id = "\"id\":\"12@25226.0011a2b3c4d5\"";
  const std::string body =
      "{" + (state.range(0) == 0 ? id + "," + sources : sources + "," + id) + "}";
  const AllocationCount count(state);
  for (auto _ : state) {
    if (DatabaseIdHandler::findId(body.c_str()).empty()) {
      state.SkipWithError("no id");
      break;
    }
  }
}
BENCHMARK(BM_BodyId)->ArgName("last")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

}  // namespace
