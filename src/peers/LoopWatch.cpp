#include "peers/LoopWatch.h"

#include <cstring>
#include <functional>
#include <string_view>
#include <syslog.h>

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
                     const std::function<std::string()>& routerName, Clock::time_point now) {
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
  Circle circle;
  const auto described = [&] {
    return router != nullptr ? routerName() : std::string("the controller");
  };
  {
    const Locked lock(lock_);
    if (!goesRound(hash, now)) {
      return;
    }
    const bool goesOn = lastCircle_ && now - *lastCircle_ < kWindow;
    lastCircle_ = now;
    if (goesOn) {
      figures_.last->time = std::chrono::system_clock::now();
      return;
    }
    circle = {message.getKind(), message.header.path, described(),
              router != nullptr ? "the controller" : "the routers",
              std::chrono::system_clock::now()};
    ++figures_.episodes;
    figures_.last = circle;
  }
  countWarning(Warning::MessageCircles);
  syslog(
      LOG_WARNING,
      "A message goes round in circles: %s on \"%s\", id \"%s\", has come from %s and gone to %s "
      "more than %u times. Does a list of routers lead back?\n",
      kindName(circle.kind), nameForLog(circle.path).c_str(),
      nameForLog(message.getUniqueId()).c_str(), nameForLog(circle.from).c_str(), circle.to.c_str(),
      kMostCrossings);
}

bool LoopWatch::goesRound(uint64_t hash, Clock::time_point now) {
  Seen& seen = seen_[hash % seen_.size()];
  if (seen.hash != hash || now - seen.windowBegin > kWindow) {
    seen = {hash, now, 0};
  }
  return ++seen.crossings > kMostCrossings;
}

LoopWatch::Figures LoopWatch::figures() const {
  const Locked lock(lock_);
  return figures_;
}

}  // namespace valtor
