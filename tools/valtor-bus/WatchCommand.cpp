#include <algorithm>
#include <chrono>

#include "bus/message/PellInternalMessage.h"
#include "support/CommandFailure.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/PersistentLink.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;

// Between two looks at whether anybody still reads.
constexpr std::chrono::milliseconds kLookInterval{300};

std::string rendered(const PellInternalMessage& message, const WatchSettings& settings,
                     bool colour) {
  const WallTime now = std::chrono::system_clock::now();
  if (settings.format) {
    return settings.format->apply(message, now) + "\n";
  }
  switch (settings.form) {
    case WatchSettings::Form::JSON:
      return messageJSON(message, now) + "\n";
    case WatchSettings::Form::Raw:
      return message.receivedText() + "\n";
    default:
      return messageLine(message, now, colour, settings.width) + "\n";
  }
}

}  // namespace

void watch(BusConnection& connection, const WatchSettings& settings, Output& output) {
  const std::vector<std::string>& paths = settings.filter.paths;
  connection.setSubscriptions(paths.empty() ? std::vector<std::string>{"*"} : paths);
  const Clock::time_point end =
      settings.timeout ? Clock::now() + toDuration(*settings.timeout) : Clock::time_point::max();
  connection.setDeadline(end);
  PersistentLink link(connection);
  link.open();
  std::size_t seen = 0;
  while ((settings.count == 0 || seen < settings.count) && !connection.interrupted()) {
    const auto message = link.receive(std::min(end, Clock::now() + kLookInterval));
    if (message && settings.filter.accepts(message->header)) {
      output.write(rendered(*message, settings, output.hasColour()));
      ++seen;
    } else if (!message && Clock::now() >= end) {
      break;
    } else {
      output.endWithoutReader();
    }
  }
  if (seen < settings.count) {
    throw CommandFailure(ExitCode::Refused, "saw " + std::to_string(seen) + " of " +
                                                std::to_string(settings.count) + " messages");
  }
}

}  // namespace valtor
