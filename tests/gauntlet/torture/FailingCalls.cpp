// A library to be loaded before all others (LD_PRELOAD). It counts the calls of the daemon under
// torture, lets the one fail that was ordered, and takes what is logged. It stays out of the way of
// what glibc does inside itself: stdio, say, does not pass through open or write.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

#include "gauntlet/torture/FaultControl.h"

using valtor::gauntlet::Call;
using valtor::gauntlet::FaultControl;
using valtor::gauntlet::movesBytes;

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
// The address sanitizer's, which has to have the blocks that it will be given back.
[[gnu::weak]] void* __interceptor_malloc(std::size_t size);
[[gnu::weak]] void* __interceptor_calloc(std::size_t count, std::size_t size);
[[gnu::weak]] void* __interceptor_realloc(void* block, std::size_t size);
}

namespace {

FaultControl* control = nullptr;
int (*realMain)(int, char**, char**) = nullptr;
// Set while this library itself makes calls. Initial-exec: the usual access may allocate.
__attribute__((tls_model("initial-exec"))) thread_local bool inside = false;
// Within getaddrinfo; whether memory was refused there.
enum class Resolving { No, Yes, Refused };
__attribute__((tls_model("initial-exec"))) thread_local Resolving resolving = Resolving::No;

class Inside {
 public:
  Inside() { inside = true; }
  ~Inside() { inside = false; }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

bool isCounting() {
  return control != nullptr && !inside && control->process != 0 &&
         control->process == syscall(SYS_getpid);
}

void keep(int priority, const char* text, std::size_t size) {
  const std::size_t begin = control->logged.fetch_add(size + 3);
  if (begin + size + 3 <= control->log.size()) {
    char* const line = control->log.data() + begin;
    line[0] = static_cast<char>('0' + priority);
    line[1] = ' ';
    std::memcpy(line + 2, text, size);
    line[size + 2] = '\n';
  }
}

// Puts a line where the torturer reads it. What finds no room is lost.
void keepLine(int priority, const char* format, va_list arguments) {
  if (control == nullptr || LOG_PRI(priority) == LOG_DEBUG) {
    return;
  }
  const Inside scope;
  std::array<char, 2048> text{};
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  std::size_t size = std::min<std::size_t>(text.size() - 1, static_cast<unsigned>(length));
  while (size > 0 && text[size - 1] == '\n') {
    --size;
  }
  keep(LOG_PRI(priority), text.data(), size);
}

// The calls that led here, as addresses within the executable, for addr2line.
void keepWay() {
  const Inside scope;
  std::array<void*, 40> frames{};
  const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
  dl_find_object program{};
  _dl_find_object(reinterpret_cast<void*>(realMain), &program);
  auto* const begin = static_cast<char*>(program.dlfo_map_start);
  std::array<char, 1024> text{};
  int size = 0;
  for (int i = 0; i < count; ++i) {
    auto* const address = static_cast<char*>(frames[static_cast<std::size_t>(i)]);
    if (address > begin && address < program.dlfo_map_end) {
      size += std::snprintf(text.data() + size, text.size() - static_cast<unsigned>(size), " 0x%lx",
                            static_cast<unsigned long>(address - begin - 1));
    }
  }
  keep(FaultControl::kWay, text.data(), static_cast<unsigned>(size));
}

int inject() {
  if (++control->injected == 1) {
    keepWay();
  }
  if (control->fault == FaultControl::kDies) {
    syscall(SYS_kill, syscall(SYS_getpid), SIGKILL);
  }
  return control->fault;
}

// What to do instead of this call; 0 for the call itself.
int faultOf(Call call) {
  if (!isCounting()) {
    return 0;
  }
  const uint32_t number = ++control->counts[static_cast<std::size_t>(call)];
  if (!control->armed || control->call != call || control->site != 0 || number < control->nth ||
      (number > control->nth && !control->onwards)) {
    return 0;
  }
  return inject();
}

// The way to this call, the same in every run: addresses within their files.
uint64_t wayHere() {
  constexpr int kFirst = 3;  // the frames of this library
  std::array<void*, 14> frames{};
  const int count = backtrace(frames.data(), static_cast<int>(frames.size()));
  uint64_t hash = 14695981039346656037U;  // FNV-1a
  for (int i = kFirst; i < count; ++i) {
    dl_find_object object{};
    auto* const address = static_cast<char*>(frames[static_cast<std::size_t>(i)]);
    if (_dl_find_object(address, &object) == 0) {
      hash ^= static_cast<uint64_t>(address - static_cast<char*>(object.dlfo_map_start));
      hash *= 1099511628211U;
    }
  }
  return hash | 1U;
}

void noteSite(uint64_t site) {
  auto& sites = control->sites;
  for (std::size_t i = 0; i < sites.size(); ++i) {
    uint64_t expected = 0;
    auto& slot = sites[(site + i) % sites.size()];
    if (slot.compare_exchange_strong(expected, site) || expected == site) {
      return;
    }
  }
}

bool refuse() {
  if (resolving == Resolving::Yes) {
    resolving = Resolving::Refused;
    ++control->resolving;
  }
  errno = ENOMEM;
  return true;
}

__attribute__((noinline)) bool mallocFails() {
  if (faultOf(Call::malloc) != 0) {
    return refuse();
  }
  if (!isCounting()) {
    return false;
  }
  const uint64_t wanted = control->site;
  const bool reached = control->injected > 0;
  if (control->armed && (wanted == 0 || (reached && !control->onwards))) {
    return false;
  }
  if (!reached) {
    const Inside scope;
    const uint64_t site = wayHere();
    if (!control->armed) {
      noteSite(site);
    }
    if (site != wanted) {
      return false;
    }
  }
  if (control->armed) {
    inject();
    return refuse();
  }
  return false;
}

int mainUnderTorture(int argc, char** argv, char** environment) {
  if (const char* const path = std::getenv("VALTOR_FAULTS"); path != nullptr) {
    const long file = syscall(SYS_openat, AT_FDCWD, path, O_RDWR);
    const long map = syscall(SYS_mmap, nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE,
                             MAP_SHARED, file, 0);
    syscall(SYS_close, file);
    unsetenv("LD_PRELOAD");
    void* frame = nullptr;
    backtrace(&frame, 1);  // loads what it needs
    control = reinterpret_cast<FaultControl*>(map);
    control->process = static_cast<int32_t>(syscall(SYS_getpid));
  }
  return realMain(argc, argv, environment);
}

}  // namespace

// Defines a function that takes the place of the C library's. Under a name of its own, so that it
// need not agree with the library's declaration to the last attribute.
#define VALTOR_IN_PLACE_OF(name, type, parameters)          \
  extern "C" type failing_##name parameters __asm__(#name); \
  type failing_##name parameters

#define VALTOR_REAL(name) \
  static auto* const real = reinterpret_cast<decltype(&failing_##name)>(dlsym(RTLD_NEXT, #name))

// Most calls: up to five arguments, each a word in a register, so that more of them than there are
// do no harm.
using Word = unsigned long;

// A call that fails with errno and this result.
#define VALTOR_FAILS_AS(name, type, counted, failure)                        \
  static_assert(!movesBytes(Call::counted));                                 \
  VALTOR_IN_PLACE_OF(name, type, (Word a, Word b, Word c, Word d, Word e)) { \
    VALTOR_REAL(name);                                                       \
    if (const int fault = faultOf(Call::counted); fault != 0) {              \
      errno = fault;                                                         \
      return failure;                                                        \
    }                                                                        \
    return real(a, b, c, d, e);                                              \
  }
#define VALTOR_FAILS(name) VALTOR_FAILS_AS(name, int, name, -1)
// It has done its work all the same.
#define VALTOR_FAILS_LATE(name) \
  VALTOR_FAILS_AS(name, int, name, (real(a, b, c, d, e), errno = fault, -1))

// The same for one that moves bytes, and may move fewer.
#define VALTOR_MOVES(name)                                                            \
  static_assert(movesBytes(Call::name));                                              \
  VALTOR_IN_PLACE_OF(name, ssize_t, (Word file, Word bytes, Word size, Word flags)) { \
    VALTOR_REAL(name);                                                                \
    const int fault = faultOf(Call::name);                                            \
    if (fault > 0) {                                                                  \
      errno = fault;                                                                  \
      return -1;                                                                      \
    }                                                                                 \
    if (fault == FaultControl::kNone) {                                               \
      return 0;                                                                       \
    }                                                                                 \
    size = fault == FaultControl::kHalf && size > 1 ? size / 2 : size;                \
    return real(file, bytes, size, flags);                                            \
  }

// clang-format off
VALTOR_FAILS(socket) VALTOR_FAILS(connect) VALTOR_FAILS(accept4) VALTOR_FAILS(bind)
VALTOR_FAILS(listen) VALTOR_FAILS(poll) VALTOR_FAILS(ppoll) VALTOR_FAILS(setsockopt)
VALTOR_FAILS(getsockopt) VALTOR_FAILS(getsockname) VALTOR_FAILS(getpeername) VALTOR_FAILS(fcntl)
VALTOR_FAILS(ioctl) VALTOR_FAILS(open) VALTOR_FAILS(fflush) VALTOR_FAILS(fsync)
VALTOR_FAILS(rename) VALTOR_FAILS(unlink) VALTOR_FAILS(mkdir) VALTOR_FAILS(stat)
VALTOR_FAILS(lstat) VALTOR_FAILS(fstat) VALTOR_FAILS(chmod) VALTOR_FAILS(chown)
VALTOR_FAILS(ftruncate) VALTOR_FAILS(system) VALTOR_FAILS(eventfd) VALTOR_FAILS(pipe2)
VALTOR_FAILS_AS(fstat64, int, fstat, -1)
VALTOR_FAILS_AS(fopen, void*, fopen, nullptr) VALTOR_FAILS_AS(fopen64, void*, fopen, nullptr)
VALTOR_FAILS_AS(getgrnam, void*, getgrnam, nullptr)
VALTOR_FAILS_AS(pthread_create, int, pthread_create, fault)
VALTOR_MOVES(send) VALTOR_MOVES(recv) VALTOR_MOVES(read) VALTOR_MOVES(write)
VALTOR_FAILS_LATE(shutdown) VALTOR_FAILS_LATE(close) VALTOR_FAILS_LATE(fclose)
    // clang-format on

    // One argument more.
    VALTOR_IN_PLACE_OF(sendto, ssize_t,
                       (Word file, Word bytes, Word size, Word flags, Word to, Word toSize)) {
  VALTOR_REAL(sendto);
  if (const int fault = faultOf(Call::sendto); fault != 0) {
    errno = fault;
    return -1;
  }
  return real(file, bytes, size, flags, to, toSize);
}

// A structure as argument.
VALTOR_IN_PLACE_OF(fopencookie, FILE*,
                   (void* cookie, const char* mode, cookie_io_functions_t functions)) {
  VALTOR_REAL(fopencookie);
  if (const int fault = faultOf(Call::fopencookie); fault != 0) {
    errno = fault;
    return nullptr;
  }
  return real(cookie, mode, functions);
}

// It returns what is wrong.
VALTOR_IN_PLACE_OF(getaddrinfo, int,
                   (const char* host, const char* service, const void* hints, void** list)) {
  VALTOR_REAL(getaddrinfo);
  if (const int fault = faultOf(Call::getaddrinfo); fault != 0) {
    return fault;
  }
  resolving = Resolving::Yes;
  const int result = real(host, service, hints, list);
  if (std::exchange(resolving, Resolving::No) == Resolving::Refused) {
    --control->resolving;
  }
  return result;
}

// A count and no error.
VALTOR_IN_PLACE_OF(fwrite, std::size_t,
                   (const void* bytes, std::size_t size, std::size_t count, FILE* stream)) {
  VALTOR_REAL(fwrite);
  if (const int fault = faultOf(Call::fwrite); fault != 0) {
    errno = fault > 0 ? fault : 0;
    return fault == FaultControl::kHalf ? real(bytes, size, count / 2, stream) : 0;
  }
  return real(bytes, size, count, stream);
}

VALTOR_IN_PLACE_OF(malloc, void*, (std::size_t size)) {
  auto* const real = __interceptor_malloc != nullptr ? __interceptor_malloc : __libc_malloc;
  return mallocFails() ? nullptr : real(size);
}
VALTOR_IN_PLACE_OF(calloc, void*, (std::size_t count, std::size_t size)) {
  auto* const real = __interceptor_calloc != nullptr ? __interceptor_calloc : __libc_calloc;
  return mallocFails() ? nullptr : real(count, size);
}
VALTOR_IN_PLACE_OF(realloc, void*, (void* block, std::size_t size)) {
  auto* const real = __interceptor_realloc != nullptr ? __interceptor_realloc : __libc_realloc;
  return mallocFails() ? nullptr : real(block, size);
}

VALTOR_IN_PLACE_OF(abort, void, ()) {
  VALTOR_REAL(abort);
  if (control != nullptr) {
    keepWay();
  }
  real();
}

VALTOR_IN_PLACE_OF(syslog, void, (int priority, const char* format, ...)) {
  va_list arguments;
  va_start(arguments, format);
  keepLine(priority, format, arguments);
  va_end(arguments);
}
// What a fortified build calls.
VALTOR_IN_PLACE_OF(__syslog_chk, void, (int priority, int /*flag*/, const char* format, ...)) {
  va_list arguments;
  va_start(arguments, format);
  keepLine(priority, format, arguments);
  va_end(arguments);
}

VALTOR_IN_PLACE_OF(__libc_start_main, int,
                   (int (*main)(int, char**, char**), int argc, char** argv, void (*init)(),
                    void (*fini)(), void (*rtldFini)(), void* stack)) {
  VALTOR_REAL(__libc_start_main);
  realMain = main;
  return real(mainUnderTorture, argc, argv, init, fini, rtldFini, stack);
}
