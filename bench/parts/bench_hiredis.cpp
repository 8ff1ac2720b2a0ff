// Another reader of length-prefixed strings, for comparison: the same payloads as bulk strings.

#include <benchmark/benchmark.h>
#include <hiredis/hiredis.h>
#include <memory>
#include <string>

#include "parts/Streams.h"

namespace {

using namespace valtor::bench;

struct FreeReader {
  void operator()(redisReader* reader) const { redisReaderFree(reader); }
};

void BM_HiredisRead(benchmark::State& state) {
  const std::string payload = payloadOf(static_cast<std::size_t>(state.range(0)));
  const Stream stream("$" + std::to_string(payload.size()) + "\r\n" + payload + "\r\n",
                      state.range(1));
  for (auto _ : state) {
    std::size_t count = 0;
    const std::unique_ptr<redisReader, FreeReader> reader(redisReaderCreate());
    stream.inChunks([&](const char* data, std::size_t size) {
      redisReaderFeed(reader.get(), data, size);
      for (void* reply = nullptr;
           redisReaderGetReply(reader.get(), &reply) == REDIS_OK && reply != nullptr; ++count) {
        benchmark::DoNotOptimize(reply);
        freeReplyObject(reply);
      }
    });
    if (count != stream.frames) {
      state.SkipWithError("messages were lost");
      break;
    }
  }
  stream.report(state);
}
BENCHMARK(BM_HiredisRead)->Apply(sizesAndTemperatures);

}  // namespace
