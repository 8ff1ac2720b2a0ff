#include <algorithm>
#include <chrono>

#include "support/CommandFailure.h"
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
bool setsUpConnection(const PellInternalHeader& header) {
  return header.kind == MessageKind::SET &&
         (header.path.empty() || header.path == "system.connection");
}

// Waits, and drops what comes meanwhile and what came while something was sent.
void waitUntil(BusConnection& connection, Clock::time_point due) {
  while (connection.receive(due) && Clock::now() < due) {
  }
  connection.dropReceived();
}

// The seconds of a recorded offset at another speed.
std::chrono::microseconds scaled(std::chrono::microseconds offset, double speed) {
  return toDuration(std::chrono::duration<double>(offset).count() / speed);
}

// Sends a recording, again and again when it is to.
class Replay {
 public:
  Replay(BusConnection& connection, const ReplaySettings& settings)
      : connection_(connection), settings_(settings), reader_(settings.file) {}

  void run() {
    if (reader_->isOnDisk()) {
      RecordingReader check(settings_.file);
      while (check.next()) {
      }
    } else if (settings_.loop) {
      throw CommandFailure(ExitCode::Usage, "--loop needs a file that can be read again");
    }
    connection_.open();
    start_ = Clock::now();
    try {
      while (sendAll() > 0 && settings_.loop) {
        reader_.emplace(settings_.file);
      }
      connection_.finish();
    } catch (const Interrupted&) {
      progress_.finish("stopped after " + std::to_string(sent_) + " messages");
      if (!settings_.loop) {
        throw;
      }
      return;
    } catch (const CommandFailure&) {
      progress_.finish("stopped after " + std::to_string(sent_) + " messages");
      throw;
    }
    progress_.finish(
        "replayed " + std::to_string(sent_) + " messages in " + secondsText(Clock::now() - start_) +
        (skipped_ > 0 ? ", left out " + std::to_string(skipped_) + " that set up a connection"
                      : ""));
    if (reader_->endedUnfinished()) {
      say("the last line of the recording is unfinished and was left out");
    }
  }

 private:
  // How many were sent.
  std::size_t sendAll() {
    const std::size_t before = sent_;
    const Clock::time_point start = Clock::now();
    std::optional<std::chrono::microseconds> first;
    while (const auto message = reader_->next()) {
      PellInternalHeader header;  // stays empty when the line is none
      HeaderLine::decode(message->payload.substr(0, message->payload.find('\n')), header);
      if (setsUpConnection(header)) {
        ++skipped_;
      } else if (settings_.filter.accepts(header)) {
        first = first.value_or(message->offset);
        const auto after = std::max(message->offset - *first, std::chrono::microseconds(0));
        waitUntil(connection_, settings_.noTiming ? start : start + scaled(after, settings_.speed));
        connection_.sendPayload(message->payload);
        ++sent_;
        progress_.show("replaying: " + std::to_string(sent_) + " messages" +
                       (reader_->isOnDisk() ? ", " + reader_->progress() : ""));
      }
    }
    return sent_ - before;
  }

  BusConnection& connection_;
  const ReplaySettings& settings_;
  std::optional<RecordingReader> reader_;
  Progress progress_;
  Clock::time_point start_;
  std::size_t sent_ = 0;
  std::size_t skipped_ = 0;
};

}  // namespace

void record(BusConnection& connection, const RecordSettings& settings, Output& output) {
  const std::vector<std::string>& paths = settings.filter.paths;
  connection.setSubscriptions(paths.empty() ? std::vector<std::string>{"*"} : paths);
  const Clock::time_point end =
      settings.timeout ? Clock::now() + toDuration(*settings.timeout) : Clock::time_point::max();
  connection.setDeadline(end);
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
      if (message && settings.filter.accepts(message->header)) {
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
  Replay(connection, settings).run();
}

}  // namespace valtor
