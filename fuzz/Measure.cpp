// Runs a fuzz program as optimised code, without libFuzzer and sanitizers: over files as they are
// and over what they grow to when a piece of them is repeated up to 64 KiB. Says which input took
// most processor time and which most memory in proportion, and keeps both in the folder given
// first, with one that broke something; fails when one took more than 50 ms.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <malloc.h>
#include <random>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "fuzz/Fuzzing.h"

// The heap of the C library, counted. What is allocated through other functions is not used here.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
  void* const block = __libc_malloc(size);
  valtor::fuzz::noteAllocated(malloc_usable_size(block));
  return block;
}
void* calloc(std::size_t count, std::size_t size) {
  void* const block = __libc_calloc(count, size);
  valtor::fuzz::noteAllocated(malloc_usable_size(block));
  return block;
}
void* realloc(void* block, std::size_t size) {
  valtor::fuzz::noteFreed(malloc_usable_size(block));
  void* const moved = __libc_realloc(block, size);
  valtor::fuzz::noteAllocated(malloc_usable_size(moved));
  return moved;
}
void free(void* block) {
  valtor::fuzz::noteFreed(malloc_usable_size(block));
  __libc_free(block);
}
}

namespace {

constexpr std::size_t kGrown = std::size_t{64} * 1024;
constexpr double kMostMilliseconds = 50;
constexpr int kGrowths = 200;               // tried with each file
constexpr std::size_t kLongestPiece = 300;  // bytes

struct Worst {
  double milliseconds = 0;
  std::string slow;
  std::string slowName;
  double bytesPerByte = 0;
  std::string large;
  std::string largeName;
  std::size_t inputs = 0;
};

// Also of threads that serve the input.
double processorMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// What is examined, so that it is there to look at when it breaks something.
std::string brokenPath;
const std::string* examined = nullptr;

void keepBroken(int /*signal*/) {
  const int file = open(brokenPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  static_cast<void>(write(file, examined->data(), examined->size()) > 0);
}

double millisecondsOf(const std::string& input) {
  examined = &input;
  const double begin = processorMilliseconds();
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  return processorMilliseconds() - begin;
}

void measure(const std::string& input, const std::string& name, Worst& worst) {
  ++worst.inputs;
  double took = millisecondsOf(input);
  for (int again = 0; again < 3 && took > worst.milliseconds; ++again) {
    took = std::min(took, millisecondsOf(input));  // the first time, others may have interfered
  }
  if (took > worst.milliseconds) {
    worst.milliseconds = took;
    worst.slow = input;
    worst.slowName = name;
  }
  const double ratio =
      static_cast<double>(valtor::fuzz::peakBytes()) / static_cast<double>(input.size());
  if (input.size() >= kGrown / 2 && ratio > worst.bytesPerByte) {
    worst.bytesPerByte = ratio;
    worst.large = input;
    worst.largeName = name;
  }
}

// The piece with its last number replaced by another one, if it has any.
std::string numbered(std::string_view piece, std::size_t number) {
  constexpr std::string_view kDigits = "0123456789";
  const std::size_t last = piece.find_last_of(kDigits);
  if (last == std::string_view::npos) {
    return std::string(piece);
  }
  const std::size_t begin = piece.find_last_not_of(kDigits, last) + 1;
  return std::string(piece.substr(0, begin)) + std::to_string(number) +
         std::string(piece.substr(last + 1));
}

std::string grown(const std::string& input, std::size_t begin, std::size_t end, bool counts) {
  const std::string_view whole = input;
  const std::string_view piece = whole.substr(begin, end - begin);
  const std::string_view rest = whole.substr(end);
  std::string text(whole.substr(0, end));
  for (std::size_t number = 1000;; ++number) {
    const std::string next = counts ? numbered(piece, number) : std::string(piece);
    if (text.size() + next.size() + rest.size() > kGrown) {
      return text.append(rest);
    }
    text += next;
  }
}

// The places in a text at which something begins or ends.
std::vector<std::size_t> jointsOf(const std::string& input) {
  std::vector<std::size_t> joints;
  for (std::size_t at = 1; at < input.size(); ++at) {
    if (std::string_view(",:[]{}\"\n;@.\\-").find(input[at]) != std::string_view::npos ||
        input[at] == '\0') {
      joints.push_back(at);
    }
  }
  joints.push_back(input.size());
  return joints;
}

void measureGrowths(const std::string& input, const std::string& name, Worst& worst) {
  std::mt19937 random(1);
  const std::vector<std::size_t> joints = jointsOf(input);
  for (int i = 0; i < kGrowths && input.size() > 1; ++i) {
    const std::size_t first = random() % joints.size();
    const std::size_t last = std::min(first + 1 + random() % 12, joints.size() - 1);
    const std::size_t begin = joints[first] - random() % 2;
    const std::size_t end = std::max(joints[last], begin + 1);
    if (end <= input.size() && end - begin <= kLongestPiece) {
      measure(grown(input, begin, end, i % 2 != 0),
              name + ", repeated from " + std::to_string(begin) + " to " + std::to_string(end),
              worst);
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  namespace fs = std::filesystem;
  if (count < 3) {
    std::fputs("usage: NAME FOLDER-FOR-THE-WORST CORPUS...\n", stderr);
    return 2;
  }
  std::vector<fs::path> files;
  for (int i = 2; i < count; ++i) {
    for (const auto& entry : fs::directory_iterator(fs::absolute(arguments[i]))) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  const fs::path folder = fs::absolute(arguments[1]);
  fs::create_directories(folder);
  brokenPath = folder / "broken";
  std::signal(SIGABRT, keepBroken);
  // What is examined prints a trace.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) {
    return 2;
  }
  LLVMFuzzerInitialize(&count, &arguments);
  Worst worst;
  for (const fs::path& file : files) {
    const std::string input = valtor::fuzz::contentOf(file);
    measure(input, file.filename(), worst);
    measureGrowths(input, file.filename(), worst);
  }
  valtor::fuzz::writeFile(folder / "slowest", worst.slow);
  valtor::fuzz::writeFile(folder / "largest", worst.large);
  std::fprintf(stderr,
               "%zu inputs; slowest %.2f ms of processor time for %zu bytes (%s); most memory %.1f "
               "bytes a byte of %zu (%s)\n",
               worst.inputs, worst.milliseconds, worst.slow.size(), worst.slowName.c_str(),
               worst.bytesPerByte, worst.large.size(), worst.largeName.c_str());
  return worst.milliseconds <= kMostMilliseconds ? 0 : 1;
}
