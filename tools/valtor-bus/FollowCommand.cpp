#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <sys/socket.h>

#include "app/util/ErrnoText.h"
#include "app/util/OwnedJSON.h"
#include "app/util/PollWait.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"
#include "support/StatusSocket.h"
#include "valtor-bus/Commands.h"

namespace valtor {
namespace {

// Between two looks at whether anybody still reads.
constexpr std::chrono::milliseconds kLookInterval{300};

std::string numberText(const cJSON* object, const char* name) {
  return printJSON(cJSON_GetObjectItem(object, name), false);
}

// One of the daemon's lines for a person; throws CommandFailure when it says that there is no such
// router.
std::string readable(const std::string& line, const std::string& uniqueID) {
  const OwnedJSON object = parseJSON(line);
  const auto text = [&](const char* name) {
    const char* value = stringMember(object.get(), name);
    return value != nullptr ? printable(value) : "";
  };
  if (const std::string error = text("error"); !error.empty()) {
    throw CommandFailure(ExitCode::Refused, error + " \"" + excerpt(uniqueID) + "\"",
                         "It has to be the unique ID of a router that status lists.");
  }
  if (const std::string missed = numberText(object.get(), "missed"); !missed.empty()) {
    return "(" + missed + " messages more than could be shown)";
  }
  const cJSON* time = cJSON_GetObjectItem(object.get(), "time");
  const std::string rule = text("rule");
  return timeOfDay(wallTime(cJSON_IsNumber(time) != 0 ? time->valuedouble : 0)) + " " +
         text("direction") + " " + (rule.empty() ? "passed" : "blocked by " + rule) + ": " +
         text("kind") + " " + text("path") + " " + numberText(object.get(), "source") + "->" +
         numberText(object.get(), "destination") + " " + text("body");
}

}  // namespace

void follow(BusConnection& /*connection*/, const FollowSettings& settings, Output& output) {
  std::string problem;
  const UniqueDescriptor socket = connectToStatus(settings.socket, problem);
  if (!socket.valid()) {
    throw CommandFailure(ExitCode::Refused, problem.empty() ? "no " + settings.socket : problem,
                         "Is the daemon running on this machine?");
  }
  const std::string request = "follow " + settings.uniqueID + "\n";
  std::string text;
  std::array<char, 65536> part{};
  if (send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    throw CommandFailure(ExitCode::Refused,
                         "cannot ask at " + settings.socket + ": " + errnoText(errno));
  }
  for (;;) {
    output.endWithoutReader();
    if (pollUntil(socket.get(), POLLIN, std::chrono::steady_clock::now() + kLookInterval) == 0) {
      continue;
    }
    const ssize_t count = recv(socket.get(), part.data(), part.size(), MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
      throw CommandFailure(ExitCode::Refused, "the daemon has ended what it told");
    }
    text.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
      const std::string line = text.substr(0, end);
      text.erase(0, end + 1);
      const std::string shown = readable(line, settings.uniqueID);
      output.line(settings.json ? escapedControls(line) : shown);
    }
  }
}

}  // namespace valtor
