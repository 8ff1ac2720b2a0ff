#include <algorithm>
#include <chrono>

#include "valtor-bus/CommandFailure.h"
#include "valtor-bus/Commands.h"
#include "valtor-bus/PersistentLink.h"
#include "valtor-bus/Progress.h"
#include "valtor-bus/Recording.h"

namespace valtor {
namespace {

using Clock = BusConnection::Clock;

constexpr std::chrono::milliseconds kProgressInterval{200};

std::string secondsText(Clock::duration time) {
  const auto tenths = std::chrono::duration_cast<std::chrono::milliseconds>(time).count() / 100;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10) + " s";
}

// Logins, subscriptions and keep-alives would change the connection of whoever replays them.
bool setsUpConnection(const std::string& payload) {
  const OwnedJSON header = parseJSON(payload.substr(0, payload.find('\n')));
  const cJSON* kind = cJSON_IsArray(header.get()) ? header.get()->child : nullptr;
  const cJSON* path = kind != nullptr ? kind->next : nullptr;
  if (path == nullptr || !cJSON_IsString(kind) || !cJSON_IsString(path) ||
      kindFromName(kind->valuestring) != MessageKind::SET) {
    return false;
  }
  const std::string text = path->valuestring;
  return text.empty() || text == "system.connection";
}

// Waits, and drops what comes meanwhile.
void waitUntil(BusConnection& connection, Clock::time_point due) {
  while (connection.receive(due) && Clock::now() < due) {
  }
}

// The seconds of a recorded offset at another speed.
std::chrono::microseconds scaled(std::chrono::microseconds offset, double speed) {
  return toDuration(std::chrono::duration<double>(offset).count() / speed);
}

}  // namespace

void record(BusConnection& connection, const RecordSettings& settings, Output& output) {
  const std::vector<std::string>& paths = settings.filter.paths;
  connection.setSubscriptions(paths.empty() ? std::vector<std::string>{"*"} : paths);
  PersistentLink link(connection);
  link.open();
  const bool toOutput = settings.file == "-";
  RecordingWriter writer =
      toOutput
          ? RecordingWriter(output)
          : RecordingWriter(settings.file, settings.overwrite ? RecordingWriter::Existing::Overwrite
                                                              : RecordingWriter::Existing::Keep);
  Progress progress;
  const Clock::time_point start = Clock::now();
  const Clock::time_point end =
      settings.timeout ? start + toDuration(*settings.timeout) : Clock::time_point::max();
  std::size_t count = 0;
  const auto finish = [&] {
    progress.finish("recorded " + std::to_string(count) + " messages in " +
                    secondsText(Clock::now() - start) + " to " +
                    (toOutput ? "standard output" : settings.file));
  };
  try {
    while ((settings.count == 0 || count < settings.count) && !connection.interrupted() &&
           Clock::now() < end) {
      const auto message = link.receive(std::min(end, Clock::now() + kProgressInterval));
      if (message && settings.filter.accepts(*message)) {
        const auto offset = Clock::now() - start;
        writer.add({std::chrono::duration_cast<std::chrono::microseconds>(offset),
                    message->receivedText()});
        ++count;
      }
      progress.show("recording: " + std::to_string(count) + " messages, " +
                    secondsText(Clock::now() - start));
    }
  } catch (const CommandFailure&) {
    finish();
    throw;
  }
  finish();
  if (count < settings.count) {
    throw CommandFailure(ExitCode::Refused, "recorded " + std::to_string(count) + " of " +
                                                std::to_string(settings.count) + " messages");
  }
}

void replay(BusConnection& connection, const ReplaySettings& settings) {
  RecordingReader reader(settings.file);
  if (reader.isOnDisk()) {
    RecordingReader check(settings.file);
    while (check.next()) {
    }
  }
  connection.open();
  Progress progress;
  const Clock::time_point start = Clock::now();
  std::optional<std::chrono::microseconds> first;
  std::size_t count = 0;
  std::size_t skipped = 0;
  try {
    while (const auto message = reader.next()) {
      if (setsUpConnection(message->payload)) {
        ++skipped;
        continue;
      }
      first = first.value_or(message->offset);
      const auto after = std::max(message->offset - *first, std::chrono::microseconds(0));
      waitUntil(connection, settings.noTiming ? start : start + scaled(after, settings.speed));
      connection.sendPayload(message->payload);
      ++count;
      progress.show("replaying: " + std::to_string(count) + " messages" +
                    (reader.isOnDisk() ? ", " + reader.progress() : ""));
    }
    connection.finish();
  } catch (const CommandFailure&) {
    progress.finish("stopped after " + std::to_string(count) + " messages");
    throw;
  }
  progress.finish(
      "replayed " + std::to_string(count) + " messages in " + secondsText(Clock::now() - start) +
      (skipped > 0 ? ", left out " + std::to_string(skipped) + " that set up a connection" : ""));
  if (reader.endedUnfinished()) {
    say("the last line of the recording is unfinished and was left out");
  }
}

}  // namespace valtor
