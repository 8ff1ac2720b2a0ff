#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <poll.h>
#include <sys/socket.h>

#include "app/util/ErrnoText.h"
#include "app/util/OwnedJSON.h"
#include "app/util/PollWait.h"
#include "app/util/StatusLimits.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "support/StatusSocket.h"
#include "valtor-bus/Commands.h"

namespace valtor {
namespace {

// Between two looks at whether anybody still reads.
constexpr std::chrono::milliseconds kLookInterval{300};
// Between two attempts.
constexpr std::chrono::milliseconds kPause{100};

std::string numberText(const cJSON* object, const char* name) {
  return printJSON(cJSON_GetObjectItem(object, name), false);
}

// One of the daemon's lines for a person.
std::string readable(const cJSON* object) {
  const auto text = [&](const char* name) {
    const char* value = stringMember(object, name);
    return value != nullptr ? printable(value) : "";
  };
  if (const std::string missed = numberText(object, "missed"); !missed.empty()) {
    return "(" + missed + " messages more than could be shown)";
  }
  const cJSON* time = cJSON_GetObjectItem(object, "time");
  const std::string rule = text("rule");
  return timeOfDay(wallTime(cJSON_IsNumber(time) != 0 ? time->valuedouble : 0)) + " " +
         text("direction") + " " + (rule.empty() ? "passed" : "blocked by " + rule) + ": " +
         text("kind") + " " + text("path") + " " + numberText(object, "source") + "->" +
         numberText(object, "destination") + " " + text("body");
}

// One router as the daemon shows it.
class Follower {
 public:
  Follower(const FollowSettings& settings, Output& output) : settings_(settings), output_(output) {}

  // Shows what comes until it ends; why it did. Throws CommandFailure when it is of no use to ask
  // again.
  CommandFailure attempt() {
    std::string problem;
    const UniqueDescriptor socket = connectToStatus(settings_.socket, problem);
    if (!socket.valid()) {
      const bool isForbidden = errno == EACCES;
      CommandFailure failure(ExitCode::Refused,
                             problem.empty() ? "no " + settings_.socket : problem,
                             "Is the daemon running on this machine?");
      return isForbidden ? throw failure : failure;
    }
    const std::string request = "follow " + settings_.uniqueID + "\n";
    if (send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
      return {ExitCode::Refused, "cannot ask at " + settings_.socket + ": " + errnoText(errno)};
    }
    return showAll(socket.get());
  }

  // Whether the daemon has told anything of the router.
  bool hasBegun() const { return hasBegun_; }

 private:
  CommandFailure showAll(int socket) {
    std::string text;
    std::array<char, 65536> part{};
    for (;;) {
      output_.endWithoutReader();
      if (pollUntil(socket, POLLIN, std::chrono::steady_clock::now() + kLookInterval) == 0) {
        continue;
      }
      const ssize_t count = recv(socket, part.data(), part.size(), MSG_DONTWAIT);
      if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        return {ExitCode::Refused, "the daemon has ended what it told"};
      }
      text.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
      for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
        if (auto failure = show(text.substr(0, end))) {
          return *failure;
        }
        text.erase(0, end + 1);
      }
    }
  }

  // Why nothing more is to be expected, if the line says so.
  std::optional<CommandFailure> show(const std::string& line) {
    const OwnedJSON object = parseJSON(line);
    if (const char* error = stringMember(object.get(), "error"); error != nullptr) {
      return CommandFailure(ExitCode::Refused,
                            "router \"" + excerpt(settings_.uniqueID) + "\": " + printable(error),
                            "UNIQUE-ID is that of a router in the table of status; no more than " +
                                std::to_string(kMostFollowers) + " can follow at a time.");
    }
    if (!hasBegun_ && stringMember(object.get(), "direction") == nullptr &&
        cJSON_GetObjectItem(object.get(), "missed") == nullptr) {
      return CommandFailure(ExitCode::Refused, "the daemon tells how it does instead of messages",
                            "It may have been too busy to see in time what was asked.");
    }
    hasBegun_ = true;
    output_.line(settings_.json ? escapedControls(withoutBrokenUtf8(line))
                                : readable(object.get()));
    return std::nullopt;
  }

  const FollowSettings& settings_;
  Output& output_;
  bool hasBegun_ = false;
};

}  // namespace

void follow(BusConnection& /*connection*/, const FollowSettings& settings, Output& output) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + toDuration(settings.timeout);
  Follower follower(settings, output);
  for (;;) {
    const CommandFailure end = follower.attempt();
    if (follower.hasBegun() || Clock::now() + kPause >= deadline) {
      throw end;
    }
    poll(nullptr, 0, static_cast<int>(kPause.count()));
  }
}

}  // namespace valtor
