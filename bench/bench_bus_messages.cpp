// What cutting a stream into messages costs, as a multiple of one copy of the same bytes in the
// same run: the ratio says more than times do, which differ from machine to machine.

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "bus/message/PellInternalStreamParser.h"

namespace {

using namespace valtor;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kStreamSize = std::size_t{4} * 1024 * 1024;  // bytes
constexpr std::size_t kChunk = 4096;                               // bytes of one read

// A stream of equal frames whose bodies have this many bytes.
std::string streamOf(std::size_t bodySize, std::size_t& frames) {
  const std::string head =
      "[\"NOT\", \"device\", 490, 0, 0]\n{\"id\":\"17@1203.0011a2b3c4d5\",\"x\":\"";
  const std::string one = frame(head + std::string(bodySize, 'x') + "\"}");
  frames = std::max<std::size_t>(1, kStreamSize / one.size());
  std::string stream;
  stream.reserve(frames * one.size());
  for (std::size_t i = 0; i < frames; ++i) {
    stream += one;
  }
  return stream;
}

// Reads the stream in chunks; how many messages came out.
std::size_t parseAll(const std::string& stream) {
  std::size_t count = 0;
  PellInternalStreamParser parser;
  parser.setMessageCallback([&count](std::vector<PellInternalMessage> messages) {
    count += messages.size();
    benchmark::DoNotOptimize(messages.data());
  });
  for (std::size_t done = 0; done < stream.size(); done += kChunk) {
    parser.parse(stream.data() + done, std::min(kChunk, stream.size() - done));
  }
  return count;
}

void parseAgainstCopy(benchmark::State& state) {
  std::size_t frames = 0;
  const std::string stream = streamOf(static_cast<std::size_t>(state.range(0)), frames);
  std::vector<char> copy(stream.size());
  std::chrono::duration<double> parsing{};
  std::chrono::duration<double> copying{};
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    if (parseAll(stream) != frames) {
      state.SkipWithError("messages were lost");
      break;
    }
    const Clock::time_point between = Clock::now();
    std::memcpy(copy.data(), stream.data(), stream.size());
    benchmark::ClobberMemory();
    copying += Clock::now() - between;
    parsing += between - start;
  }
  const auto runs = static_cast<double>(state.iterations());
  state.counters["parse_per_copy"] = parsing / copying;
  state.counters["ns_per_message"] = parsing.count() * 1e9 / runs / static_cast<double>(frames);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream.size()));
}

BENCHMARK(parseAgainstCopy)->Arg(0)->Arg(100)->Arg(1000)->Arg(100'000)->Arg(2'000'000);

}  // namespace
