#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace valtor::gauntlet {

// The calls that can be made to fail, under the names of the C library.
// clang-format off
#define VALTOR_CALLS(X)                                                                     \
  X(socket) X(connect) X(accept4) X(bind) X(listen) X(send) X(sendto) X(recv) X(poll)      \
  X(ppoll) X(setsockopt) X(getsockopt) X(getsockname) X(getpeername) X(shutdown) X(fcntl) X(ioctl)  \
  X(open) X(fopen) X(read) X(write) X(fwrite) X(fflush) X(fsync) X(fclose) X(close)        \
  X(rename) X(unlink) X(mkdir) X(stat) X(lstat) X(fstat) X(chmod) X(chown) X(ftruncate)    \
  X(fopencookie) X(system) X(eventfd) X(pipe2) X(pthread_create) X(getaddrinfo)            \
  X(getgrnam) X(malloc)
// clang-format on

enum class Call {
#define VALTOR_NAME(name) name,
  VALTOR_CALLS(VALTOR_NAME)
#undef VALTOR_NAME
      count
};
inline constexpr std::size_t kCalls = static_cast<std::size_t>(Call::count);

// Those that may move fewer bytes than they were asked to.
constexpr bool movesBytes(Call call) {
  return call == Call::send || call == Call::recv || call == Call::read || call == Call::write ||
         call == Call::fwrite;
}

// What the daemon under torture, with FailingCalls loaded before the C library, and the one who
// tortures it share: a file mapped into both that begins as zeros. The order is given while it is
// not armed.
struct FaultControl {
  // What happens instead of a call that moves bytes, besides the values of errno (or what else a
  // call returns: getaddrinfo has small negative ones).
  static constexpr int kHalf = -1001;  // at most half of the bytes, one at least
  static constexpr int kNone = -1002;  // 0 bytes
  static constexpr int kDies = -1003;  // any call: SIGKILL

  // Counting begins with main, and in that process only: what it starts is left alone.
  std::atomic<int32_t> process;

  std::atomic<bool> armed;
  std::atomic<Call> call;
  std::atomic<int> fault;
  std::atomic<bool> onwards;   // from then on, instead of once
  std::atomic<uint32_t> nth;   // counted from 1; of malloc when site is 0
  std::atomic<uint64_t> site;  // malloc: the first one with this way through the program

  std::array<std::atomic<uint32_t>, kCalls> counts;
  std::atomic<uint32_t> injected;
  // The ways through the program that lead to malloc, by their hashes; while it is not armed.
  std::array<std::atomic<uint64_t>, 16384> sites;

  // Threads within getaddrinfo that were refused memory there, which glibc 2.36 does not survive.
  std::atomic<int> resolving;

  // What was logged: a line each of a digit, the priority, a blank and the text. In between, where
  // the first fault struck and where it aborted, as addresses.
  static constexpr int kWay = 9;
  std::atomic<std::size_t> logged;
  std::array<char, std::size_t{1} << 20> log;
};

}  // namespace valtor::gauntlet
