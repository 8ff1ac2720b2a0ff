// Headers, and a message's whole way: received chunks to the frame that goes out.

#include <benchmark/benchmark.h>
#include <memory>
#include <string>
#include <vector>

#include "bus/message/Frame.h"
#include "bus/message/PellInternalStreamParser.h"
#include "parts/AllocationCount.h"
#include "parts/Streams.h"

namespace {

using namespace valtor;
using namespace valtor::bench;

std::unique_ptr<char[]> received(const std::string& payload) {
  auto buffer = std::make_unique<char[]>(payload.size() + 1);
  payload.copy(buffer.get(), payload.size());
  return buffer;
}

// With the copy that every received payload is.
void BM_DecodeHeader(benchmark::State& state) {
  const std::string payload = payloadOf(100);
  const AllocationCount count(state);
  for (auto _ : state) {
    const PellInternalMessage message(received(payload));
    benchmark::DoNotOptimize(message.isDecoded());
  }
}
BENCHMARK(BM_DecodeHeader);

void BM_EncodeHeader(benchmark::State& state) {
  const PellInternalMessage message(received(payloadOf(100)));
  const AllocationCount count(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(message.headerLine());
  }
}
BENCHMARK(BM_EncodeHeader);

void BM_ChunksToFrame(benchmark::State& state) {
  const std::string bytes = frame(payloadOf(static_cast<std::size_t>(state.range(0))));
  std::size_t sent = 0;
  PellInternalStreamParser parser;
  parser.setMessageCallback([&sent](const std::vector<PellInternalMessage>& messages) {
    for (const PellInternalMessage& message : messages) {
      const SharedFrame framed = frameOf(message, message.header.sourceConnID);
      benchmark::DoNotOptimize(framed->data());
      sent += framed->size();
    }
  });
  const AllocationCount count(state);
  for (auto _ : state) {
    for (std::size_t done = 0; done < bytes.size(); done += kChunk) {
      parser.parse(bytes.data() + done, std::min(kChunk, bytes.size() - done));
    }
  }
  if (sent % bytes.size() != 0 || sent == 0) {
    state.SkipWithError("what went out is not what came in");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
}
BENCHMARK(BM_ChunksToFrame)->ArgName("bytes")->Arg(100)->Arg(300)->Arg(16'384)->Arg(kMiB);

}  // namespace
