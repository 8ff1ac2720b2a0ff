#include "SystemCalls.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <dlfcn.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Switchboard {
  std::string failing;
  int failingCall = 0;
  int error = 0;
  int stopAfter = 0;
  std::vector<std::string> seen;
};

// Null unless a test counts: the process uses these calls before main and after it as well.
Switchboard* active = nullptr;

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

bool stopsHere() {
  return active != nullptr && static_cast<int>(active->seen.size()) == active->stopAfter;
}

// Notes the call and says whether it shall fail, with errno set.
bool failsHere(const char* name) {
  if (active == nullptr) {
    return false;
  }
  active->seen.emplace_back(name);
  const auto count = std::count(active->seen.begin(), active->seen.end(), name);
  if (active->failing != name || count != active->failingCall) {
    return false;
  }
  errno = active->error;
  return true;
}

template <class Result, class Real>
Result pass(const char* name, Result failed, Real real) {
  if (failsHere(name)) {
    return failed;
  }
  const Result result = real();
  if (stopsHere()) {
    _exit(valtor::test::SystemCalls::kStopped);
  }
  return result;
}

}  // namespace

extern "C" {

// Lets a far too large allocation fail under the sanitizers as it does without them.
const char* __asan_default_options();
const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options();
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

FILE* fopen(const char* path, const char* mode) {
  return pass("fopen", static_cast<FILE*>(nullptr),
              [path, mode] { return next<FILE*(const char*, const char*)>("fopen")(path, mode); });
}

FILE* fopen64(const char* path, const char* mode) {
  return pass("fopen", static_cast<FILE*>(nullptr), [path, mode] {
    return next<FILE*(const char*, const char*)>("fopen64")(path, mode);
  });
}

size_t fwrite(const void* data, size_t size, size_t count, FILE* file) {
  return pass("fwrite", size_t{0}, [data, size, count, file] {
    const auto real = next<size_t(const void*, size_t, size_t, FILE*)>("fwrite");
    if (stopsHere()) {
      real(data, size, count / 2, file);
      return static_cast<size_t>(next<int(FILE*)>("fflush")(file));
    }
    return real(data, size, count, file);
  });
}

size_t fread(void* data, size_t size, size_t count, FILE* file) {
  return pass("fread", size_t{0}, [data, size, count, file] {
    return next<size_t(void*, size_t, size_t, FILE*)>("fread")(data, size, count, file);
  });
}

long ftell(FILE* file) {
  return pass("ftell", LONG_MAX - 1, [file] { return next<long(FILE*)>("ftell")(file); });
}

int fflush(FILE* file) {
  return pass("fflush", EOF, [file] { return next<int(FILE*)>("fflush")(file); });
}

int fclose(FILE* file) {
  // A stream is gone even when closing it failed, so it is closed first.
  const auto real = next<int(FILE*)>("fclose");
  if (failsHere("fclose")) {
    const int error = errno;
    real(file);
    errno = error;
    return EOF;
  }
  const int result = real(file);
  if (stopsHere()) {
    _exit(valtor::test::SystemCalls::kStopped);
  }
  return result;
}

int fsync(int descriptor) {
  return pass("fsync", -1, [descriptor] { return next<int(int)>("fsync")(descriptor); });
}

int rename(const char* from, const char* to) noexcept {
  return pass("rename", -1,
              [from, to] { return next<int(const char*, const char*)>("rename")(from, to); });
}

int unlink(const char* path) noexcept {
  return pass("unlink", -1, [path] { return next<int(const char*)>("unlink")(path); });
}

int mkdir(const char* path, mode_t mode) noexcept {
  return pass("mkdir", -1,
              [path, mode] { return next<int(const char*, mode_t)>("mkdir")(path, mode); });
}

int stat(const char* path, struct stat* status) noexcept {
  return pass("stat", -1, [path, status] {
    return next<int(const char*, struct stat*)>("stat")(path, status);
  });
}

}  // extern "C"

namespace valtor::test {

SystemCalls::SystemCalls() { active = std::make_unique<Switchboard>().release(); }

SystemCalls::~SystemCalls() {
  const std::unique_ptr<Switchboard> ended(active);
  active = nullptr;
}

void SystemCalls::fail(const std::string& name, int nth, int error) {
  active->failing = name;
  active->failingCall = nth;
  active->error = error;
}

void SystemCalls::stopAfter(int step) { active->stopAfter = step; }

std::vector<std::string> SystemCalls::seen() const { return active->seen; }

}  // namespace valtor::test
