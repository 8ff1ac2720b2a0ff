#include "fuzz/Fuzzing.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <pthread.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include "app/util/Paths.h"
#include "support/LogSink.h"

#ifdef __has_feature
#if __has_feature(address_sanitizer)
#include <sanitizer/allocator_interface.h>
#define VALTOR_HEAP_HOOKS
#endif
#endif

namespace valtor::fuzz {

namespace {

// Freed bytes may have been allocated before the input.
std::atomic<int64_t> liveBytes{0};
std::atomic<int64_t> mostBytes{0};

thread_local bool examining = false;

// Every line is formatted, and goes nowhere.
void dropLine(int /*priority*/, const std::string& /*text*/) {}

class ScratchFolder {
 public:
  ScratchFolder() {
    namespace fs = std::filesystem;
    std::error_code none;
    const fs::path inMemory = "/dev/shm";
    const fs::path parent = fs::is_directory(inMemory, none) ? inMemory : fs::temp_directory_path();
    path_ = parent / ("valtor-fuzz-" + std::to_string(getpid()));
    setPathPrefix(path_);
    for (const std::string& folder :
         {paths().databaseDirectory, path_ + "/vorn/etc", paths().incomingClientDirectory}) {
      fs::create_directories(folder);
    }
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace

void require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
  }
}

unsigned Input::choose(unsigned count) {
  if (left_.empty()) {
    return 0;
  }
  const auto byte = static_cast<unsigned char>(left_.front() - 'a');
  left_.remove_prefix(1);
  return byte % count;
}

std::vector<std::string> Input::parts() const {
  std::vector<std::string> parts;
  for (std::string_view rest = left_;;) {
    const std::size_t end = std::min(rest.find('\0'), rest.size());
    parts.emplace_back(rest.substr(0, end));
    if (end == rest.size()) {
      return parts;
    }
    rest.remove_prefix(end + 1);
  }
}

std::size_t peakBytes() { return static_cast<std::size_t>(mostBytes.load()); }

void noteAllocated(std::size_t bytes) {
  const int64_t now = liveBytes += static_cast<int64_t>(bytes);
  if (now > mostBytes) {
    mostBytes = now;
  }
}

void noteFreed(std::size_t bytes) { liveBytes -= static_cast<int64_t>(bytes); }

const std::string& scratchFolder() {
  static const ScratchFolder folder;
  return folder.path();
}

void writeFile(const std::string& path, std::string_view content) {
  std::ofstream(path, std::ios::binary)
      .write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

PellInternalMessage received(std::string_view payload) {
  auto buffer = std::make_unique<char[]>(payload.size() + 1);
  payload.copy(buffer.get(), payload.size());
  PellInternalMessage message(std::move(buffer));
  message.setReceivedBytes(payload.size());
  return message;
}

}  // namespace valtor::fuzz

// No input reaches a network, and none starts a thread from the one that examines it: both are
// refused, and what is examined has to do without. So an input does the same each time.
extern "C" {
int __interceptor_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                 void* (*entry)(void*), void* argument) __attribute__((weak));

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept {
  if (valtor::fuzz::examining) {
    return EAGAIN;
  }
  if (__interceptor_pthread_create != nullptr) {
    return __interceptor_pthread_create(thread, attributes, entry, argument);
  }
  return reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"))(
      thread, attributes, entry, argument);
}

int connect(int /*socket*/, const sockaddr* /*address*/, socklen_t /*size*/) {
  errno = ENETUNREACH;
  return -1;
}
}

#ifdef VALTOR_HEAP_HOOKS
namespace {
void hookAllocation(const volatile void* /*block*/, std::size_t size) {
  valtor::fuzz::noteAllocated(size);
}
void hookFree(const volatile void* block) {
  // The parameter of the one is volatile, that of the other is not.
  valtor::fuzz::noteFreed(__sanitizer_get_allocated_size(const_cast<const void*>(block)));
}
}  // namespace

extern "C" const char* __asan_default_options();
const char* __asan_default_options() { return "quarantine_size_mb=16:malloc_context_size=8"; }
#endif

int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  valtor::setLogSink(valtor::fuzz::dropLine);
  valtor::fuzz::scratchFolder();
#ifdef VALTOR_HEAP_HOOKS
  __sanitizer_install_malloc_and_free_hooks(hookAllocation, hookFree);
#endif
  if (valtor::fuzz::prepare != nullptr) {
    valtor::fuzz::prepare();
  }
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace valtor::fuzz;
  liveBytes = 0;
  mostBytes = 0;
  examining = true;
  examine(Input(data, size));
  examining = false;
  const std::size_t most = kMemoryLimit.perByte * size + kMemoryLimit.constant;
  if (peakBytes() > most) {
    std::fprintf(stderr, "%zu bytes live for an input of %zu, at most %zu\n", peakBytes(), size,
                 most);
  }
  require(peakBytes() <= most, "memory stays in proportion to the input");
  return 0;
}
