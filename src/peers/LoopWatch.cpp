#include "peers/LoopWatch.h"

#include <cstring>
#include <functional>
#include <string_view>
#include <syslog.h>
#include <utility>

#include "app/util/ErrnoText.h"
#include "app/util/Warnings.h"

namespace valtor {

namespace {

constexpr std::size_t kLookedAt = 1024;  // bytes of a body

uint64_t mix(uint64_t hash, uint64_t value) {
  return (hash ^ value) * 0x9E3779B97F4A7C15ULL;  // 2^64 divided by the golden ratio
}

}  // namespace

void LoopWatch::note(const PellInternalMessage& message, const void* router,
                     const std::function<std::string()>& names, Clock::time_point now) {
  const char* const text = message.bodyText();
  if (text == nullptr) {
    return;
  }
  const std::string_view body(text, strnlen(text, kLookedAt));
  if (body.find("\"id\"") == std::string_view::npos) {
    return;
  }
  uint64_t hash = mix(std::hash<std::string_view>()(body), message.receivedBytes());
  hash = mix(hash, std::hash<std::string>()(message.header.path));
  hash = mix(hash, static_cast<uint64_t>(message.getKind()));
  hash = mix(hash, reinterpret_cast<uintptr_t>(router));
  // What looked like an identifier may be one of something within the body.
  if (!goesRound(hash, now) || message.getUniqueId().empty() || !beginsEpisode(now)) {
    return;
  }
  try {
    beginEpisode(message, router == nullptr, names);
  } catch (...) {
    const Locked lock(lock_);
    lastCircle_.reset();  // untold; the next round tries again
    throw;
  }
}

void LoopWatch::beginEpisode(const PellInternalMessage& message, bool outwards,
                             const std::function<std::string()>& names) {
  Circle circle{message.getKind(), std::string(shownPath(message.header.path)),
                outwards ? "the controller" : names(), outwards ? names() : "the controller",
                std::chrono::system_clock::now()};
  syslog(
      LOG_WARNING,
      "A message goes round in circles: %s on \"%s\", id \"%s\", has come from %s and gone to %s "
      "more than %u times. Does a list of routers lead back?\n",
      kindName(circle.kind), nameForLog(circle.path).c_str(),
      nameForLog(message.getUniqueId()).c_str(), nameForLog(circle.from).c_str(),
      nameForLog(circle.to).c_str(), kMostCrossings);
  countWarning(Warning::MessageCircles);
  const Locked lock(lock_);
  ++figures_.episodes;
  figures_.last = std::move(circle);
}

bool LoopWatch::goesRound(uint64_t hash, Clock::time_point now) {
  const Locked lock(lock_);
  Seen& seen = seen_[static_cast<std::size_t>(hash % seen_.size())];
  if (seen.hash != hash || now - seen.windowBegin > kWindow) {
    seen = {hash, now, 0};
  }
  return ++seen.crossings > kMostCrossings;
}

bool LoopWatch::beginsEpisode(Clock::time_point now) {
  const Locked lock(lock_);
  const bool goesOn = lastCircle_ && now - *lastCircle_ < kWindow;
  lastCircle_ = now;
  if (goesOn && figures_.last) {
    figures_.last->time = std::chrono::system_clock::now();
  }
  return !goesOn;
}

LoopWatch::Figures LoopWatch::figures() const {
  const Locked lock(lock_);
  return figures_;
}

}  // namespace valtor
