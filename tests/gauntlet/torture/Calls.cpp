// Calls fail: the scenario again and again, each time with another fault.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <netdb.h>
#include <set>
#include <string>
#include <vector>

#include "gauntlet/torture/Trial.h"

namespace valtor::gauntlet {

namespace {

constexpr std::array<const char*, kCalls> kNames = {
#define VALTOR_NAME(name) #name,
    VALTOR_CALLS(VALTOR_NAME)
#undef VALTOR_NAME
};

constexpr std::chrono::seconds kPassing{5};
constexpr int kHalf = FaultControl::kHalf;
constexpr int kNone = FaultControl::kNone;

struct Row {
  Call call;
  std::array<int, 3> lasting;  // once, and from then on
  std::array<int, 3> passing;  // once only: for ever it is no fault of a real system
};

// In the order of the calls, one each.
constexpr Row kRows[] = {
    {Call::socket, {EMFILE, ENOBUFS}, {}},
    {Call::connect, {ECONNREFUSED, ETIMEDOUT, EADDRNOTAVAIL}, {EINTR}},
    {Call::accept4, {EMFILE}, {ECONNABORTED, EINTR}},
    {Call::bind, {EADDRINUSE, EACCES}, {}},
    {Call::listen, {EADDRINUSE}, {}},
    {Call::send, {EAGAIN, ECONNRESET, kHalf}, {EINTR, ENOBUFS}},
    {Call::sendto, {ENOBUFS}, {EAGAIN}},
    {Call::recv, {ECONNRESET, kHalf, kNone}, {EINTR, EAGAIN, ENOMEM}},
    {Call::poll, {ENOMEM}, {EINTR}},
    {Call::ppoll, {ENOMEM}, {EINTR}},
    {Call::setsockopt, {ENOMEM}, {}},
    {Call::getsockopt, {ENOBUFS}, {}},
    {Call::getsockname, {ENOBUFS}, {}},
    {Call::getpeername, {ENOTCONN}, {}},
    {Call::shutdown, {ENOTCONN}, {}},
    {Call::fcntl, {EINVAL}, {}},
    {Call::ioctl, {EINVAL}, {}},
    {Call::open, {EMFILE, EACCES, EROFS}, {EINTR, EIO}},
    {Call::fopen, {EMFILE, EACCES, ENOSPC}, {}},
    {Call::read, {EIO, kHalf}, {EINTR, kNone}},
    {Call::write, {EIO, kHalf}, {EINTR, EAGAIN, ENOSPC}},
    {Call::fwrite, {ENOSPC, kHalf}, {}},
    {Call::fflush, {ENOSPC}, {}},
    {Call::fsync, {EIO}, {EINTR}},
    {Call::fclose, {ENOSPC}, {}},
    {Call::close, {EIO}, {EINTR}},
    {Call::rename, {EIO, ENOSPC}, {}},
    {Call::unlink, {EPERM}, {}},
    {Call::mkdir, {EACCES, ENOSPC}, {}},
    {Call::stat, {EACCES, EIO}, {}},
    {Call::lstat, {EIO}, {}},
    {Call::fstat, {EIO}, {}},
    {Call::chmod, {EPERM}, {}},
    {Call::chown, {EPERM}, {}},
    {Call::ftruncate, {EIO}, {}},
    {Call::fopencookie, {ENOMEM}, {}},
    {Call::system, {EAGAIN}, {}},
    {Call::eventfd, {EMFILE}, {}},
    {Call::pipe2, {EMFILE}, {}},
    {Call::pthread_create, {EAGAIN}, {}},
    {Call::getaddrinfo, {EAI_AGAIN, EAI_MEMORY}, {}},
    {Call::getgrnam, {EIO}, {}},
    {Call::malloc, {ENOMEM}, {}},
};

constexpr bool areRowsRight() {
  bool right = std::size(kRows) == kCalls;
  for (std::size_t i = 0; i < std::size(kRows); ++i) {
    right = right && kRows[i].call == static_cast<Call>(i);
    for (const auto& faults : {kRows[i].lasting, kRows[i].passing}) {
      for (const int fault : faults) {
        right = right && (movesBytes(kRows[i].call) || (fault != kHalf && fault != kNone));
      }
    }
  }
  return right;
}
static_assert(areRowsRight());

struct Job {
  Call call = Call::count;
  int fault = 0;
  bool onwards = false;
  uint32_t nth = 0;
  uint64_t site = 0;

  std::string name() const {
    std::string text = kNames[static_cast<std::size_t>(call)];
    text += site != 0 ? " at " + std::to_string(site) : " " + std::to_string(nth);
    text += fault == kHalf ? " half"
            : fault == kNone
                ? " nothing"
                : std::string(" ") +
                      (call == Call::getaddrinfo ? gai_strerror(fault) : strerrorname_np(fault));
    return text + (onwards ? " onwards" : " once");
  }
};

class CallsTorture {
 public:
  explicit CallsTorture(const Settings& settings) : settings_(settings) {}
  int run();

 private:
  const Build& buildFor(Call call) const {
    return call == Call::malloc ? settings_.plain : settings_.sanitized;
  }
  bool learn();
  std::vector<Job> jobs() const;
  Trial::Outcome play(const Job& job, std::chrono::milliseconds patience);

  const Settings& settings_;
  std::map<const Build*, Trial::Troubles> usual_;  // of a run without fault
  std::array<uint32_t, kCalls> counts_{};
  std::set<uint64_t> sites_;
};

// What the scenario does without a fault, from a few runs.
bool CallsTorture::learn() {
  for (const Build* build : {&settings_.sanitized, &settings_.plain}) {
    for (int i = 0; i < 3; ++i) {
      Trial trial(*build, settings_);
      trial.start();
      trial.play(std::chrono::seconds(20));
      FaultControl& faults = trial.subject().faults();
      if (build == &settings_.sanitized) {
        for (std::size_t call = 0; call < kCalls; ++call) {
          counts_[call] = std::max(counts_[call], faults.counts[call].load());
        }
      } else {
        sites_.insert(faults.sites.begin(), faults.sites.end());
        sites_.erase(0);
      }
      const std::string bad = trial.outcome().harmed ? "not all comes about" : trial.recovery();
      if (!bad.empty()) {
        std::printf("FINDING without a fault: %s\n%s", bad.c_str(),
                    trial.subject().story().c_str());
        return false;
      }
      usual_[build].merge(trial.troubles());
    }
  }
  bool counted = !sites_.empty();
  for (std::size_t call = 0; call < kCalls; ++call) {
    if (counts_[call] == 0) {
      std::printf("FINDING %s is never called\n", kNames[call]);
      counted = false;
    }
  }
  return counted;
}

std::vector<Job> CallsTorture::jobs() const {
  std::vector<Job> all;
  const auto add = [&](const Row& row, uint32_t nth, uint64_t site) {
    for (const bool onwards : {false, true}) {
      for (const int fault : row.lasting) {
        if (fault != 0) {
          all.push_back({row.call, fault, onwards, nth, site});
        }
      }
    }
    for (const int fault : row.passing) {
      if (fault != 0) {
        all.push_back({row.call, fault, false, nth, site});
      }
    }
  };
  for (const Row& row : kRows) {
    if (row.call == Call::malloc) {
      for (const uint64_t site : sites_) {
        add(row, 0, site);
      }
    }
    const uint32_t count =
        row.call == Call::malloc ? 0 : counts_[static_cast<std::size_t>(row.call)];
    for (uint32_t nth = 1; nth <= count; ++nth) {
      add(row, nth, 0);
    }
  }
  return all;
}

Trial::Outcome CallsTorture::play(const Job& job, std::chrono::milliseconds patience) {
  Trial trial(buildFor(job.call), settings_);
  FaultControl& faults = trial.subject().faults();
  faults.call = job.call;
  faults.fault = job.fault;
  faults.onwards = job.onwards;
  faults.nth = job.nth;
  faults.site = job.site;
  faults.armed = true;
  trial.start();
  // What passes by itself is waited for.
  const bool lasts = job.onwards && job.fault != kHalf;
  trial.play(lasts ? patience : std::max<std::chrono::milliseconds>(patience, kPassing));
  faults.armed = false;
  trial.outcome().met = faults.injected > 0;
  return trial.judge(usual_[&buildFor(job.call)]);
}

int CallsTorture::run() {
  if (!learn()) {
    return 1;
  }
  std::vector<Job> all = jobs();
  if (settings_.verbose) {
    for (std::size_t call = 0; call < kCalls; ++call) {
      std::printf("%s: %u times\n", kNames[call], counts_[call]);
    }
    std::printf("%zu ways to malloc, %zu runs\n", sites_.size(), all.size());
  }
  // Each worker has counted for itself, so what is whose must not depend on the whole list.
  std::map<std::size_t, Job> drawn;
  for (const Job& job : all) {
    const std::string name = job.name();
    const std::size_t rank = std::hash<std::string>()(std::to_string(settings_.seed) + name);
    if (rank % settings_.workers == settings_.worker && isWanted(name, settings_)) {
      drawn[rank] = job;
    }
  }
  Tally tally;
  for (const auto& [rank, job] : drawn) {
    if (settings_.most != 0 && tally["runs"] * settings_.workers >= settings_.most) {
      break;
    }
    Trial::Outcome outcome = play(job, std::chrono::milliseconds(700));
    if (outcome.finding == Trial::kNotTold) {
      // Was it harmed, or only late on a busy machine?
      outcome = play(job, std::chrono::seconds(20));
    }
    tally["faults met"] += outcome.met ? 1 : 0;
    note(tally, job.name(), outcome, settings_);
  }
  return print(tally);
}

}  // namespace

int tortureCalls(const Settings& settings) { return CallsTorture(settings).run(); }

}  // namespace valtor::gauntlet
