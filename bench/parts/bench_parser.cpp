// Cutting a stream into messages, beside copying the same bytes.

#include <benchmark/benchmark.h>
#include <cstring>
#include <vector>

#include "bus/message/PellInternalStreamParser.h"
#include "parts/Streams.h"

namespace {

using namespace valtor;
using namespace valtor::bench;

void BM_Parse(benchmark::State& state) {
  const Stream stream(frame(payloadOf(static_cast<std::size_t>(state.range(0)))), state.range(1));
  for (auto _ : state) {
    std::size_t count = 0;
    PellInternalStreamParser parser;
    parser.setMessageCallback([&count](std::vector<PellInternalMessage> messages) {
      count += messages.size();
      benchmark::DoNotOptimize(messages.data());
    });
    stream.inChunks([&parser](const char* data, std::size_t size) { parser.parse(data, size); });
    if (count != stream.frames) {
      state.SkipWithError("messages were lost");
      break;
    }
  }
  stream.report(state);
}
BENCHMARK(BM_Parse)->Apply(sizesAndTemperatures);

void BM_Copy(benchmark::State& state) {
  const Stream stream(frame(payloadOf(static_cast<std::size_t>(state.range(0)))), state.range(1));
  const PageBuffer copy(stream.bytes.size());
  std::memset(copy.data(), 0, copy.size());
  for (auto _ : state) {
    std::size_t done = 0;
    stream.inChunks([&](const char* data, std::size_t size) {
      std::memcpy(copy.data() + done, data, size);
      done += size;
    });
    benchmark::ClobberMemory();
  }
  stream.report(state);
}
BENCHMARK(BM_Copy)->Apply(sizesAndTemperatures);

}  // namespace
