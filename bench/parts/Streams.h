#pragma once

#include <benchmark/benchmark.h>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace valtor::bench {

// Bytes that a receive thread reads at once.
constexpr std::size_t kChunk = 15'360;
constexpr std::size_t kMiB = 1'048'576;  // bytes
constexpr int64_t kHot = 0;
constexpr int64_t kCold = 1;

// Page-aligned bytes.
class PageBuffer {
 public:
  explicit PageBuffer(std::size_t size)
      : size_(size),
        bytes_(static_cast<char*>(std::aligned_alloc(kPage, (size + kPage - 1) / kPage * kPage))) {
    if (bytes_ == nullptr) {
      throw std::bad_alloc();
    }
  }
  char* data() const { return bytes_.get(); }
  std::size_t size() const { return size_; }

 private:
  static constexpr std::size_t kPage = 4096;
  struct Free {
    void operator()(char* bytes) const { std::free(bytes); }  // NOLINT(*-no-malloc)
  };
  std::size_t size_;
  std::unique_ptr<char, Free> bytes_;
};

// A payload of this many bytes: a status message with an identifier and padding.
inline std::string payloadOf(std::size_t size) {
  std::string payload =
      "[\"NOT\", \"route\", 490, 0, 0]\n{\"id\":\"17@1203.0011a2b3c4d5\",\"x\":\"";
  payload.append(size - payload.size() - 2, 'x');
  return payload + "\"}";
}

// Equal frames in a row. A hot stream stays in the caches from one pass to the next; a cold one is
// twice as long as the largest cache, so that every byte comes from memory.
struct Stream {
  Stream(const std::string& frame, int64_t temperature)
      : frames(frameCount(frame.size(), temperature)), bytes(frames * frame.size()) {
    for (std::size_t i = 0; i < frames; ++i) {
      frame.copy(bytes.data() + i * frame.size(), frame.size());
    }
  }
  // Calls with every chunk.
  template <typename Call>
  void inChunks(Call call) const {
    for (std::size_t done = 0; done < bytes.size(); done += kChunk) {
      call(bytes.data() + done, std::min(kChunk, bytes.size() - done));
    }
  }
  // Counters of a benchmark that has read the stream once in every iteration.
  void report(benchmark::State& state) const {
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
    state.counters["per_message"] = benchmark::Counter(
        static_cast<double>(frames),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  }

  std::size_t frames;
  PageBuffer bytes;

 private:
  static std::size_t frameCount(std::size_t frameSize, int64_t temperature) {
    const long cache = sysconf(_SC_LEVEL3_CACHE_SIZE);
    const std::size_t cold = cache > 0 ? 2 * static_cast<std::size_t>(cache) : 64 * kMiB;
    const std::size_t length = temperature == kCold ? cold : kMiB / 4;
    return std::max<std::size_t>(1, length / frameSize);
  }
};

// The sizes and temperatures at which readers are compared.
inline void sizesAndTemperatures(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"bytes", "cold"})
      ->ArgsProduct({{100, 1024, 65'536, kMiB}, {kHot, kCold}})
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace valtor::bench
