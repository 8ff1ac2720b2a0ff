#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "app/util/Mutex.h"
#include "valtor-status/BusParticipant.h"
#include "valtor-status/History.h"

namespace valtor {

// What is known now, and the texts that browsers get of it. One thread feeds it, any number read
// and wait; each text is made once for all who need the same.
class LiveState {
 public:
  using Clock = std::chrono::steady_clock;
  using Text = std::shared_ptr<const std::string>;

  // How far somebody has read.
  struct Mark {
    uint64_t revision = 0;
    uint64_t sample = 0;
    uint64_t event = 0;
  };
  struct News {
    Text state;  // null when nothing has changed
    std::vector<History::Event> events;
  };

  explicit LiveState(std::string version) : version_(std::move(version)) {}

  // Of one look: the daemon's document, valid JSON and valid UTF-8, or why there is none; and the
  // bus. False, and nothing has happened, for a document that is not one of a daemon.
  bool answered(std::string document, const BusParticipant::View& bus);
  void silent(const std::string& problem, const BusParticipant::View& bus);

  // The whole state, with all rates and events, and how far it goes.
  Text whole(Mark& mark);
  // What has changed since the mark, which is moved on: the newest state with the rates since then,
  // and the events since then that are still kept. Waits for it until the deadline, or until end().
  News next(Mark& mark, Clock::time_point deadline);

  // The last document's figures, and the rest that monitoring wants.
  struct Figures {
    bool answering = false;
    std::string problem;
    double age = -1;  // seconds since the document was read; negative when there is none
    StatusFigures status;
    BusParticipant::View bus;
  };
  Figures figures() const;
  // "" when the daemon answered at the last look, otherwise why it did not.
  std::string problem() const;

  // Wakes all who wait; nobody waits from now on.
  void end();
  bool hasEnded() const;

 private:
  struct Cached {
    uint64_t sample;
    bool whole;
    Text text;
  };

  void finish(const BusParticipant::View& bus, double time) VALTOR_REQUIRES(lock_);
  Text text(uint64_t sinceSample, bool whole) VALTOR_REQUIRES(lock_);
  std::string render(uint64_t sinceSample, bool whole) const VALTOR_REQUIRES(lock_);

  const std::string version_;
  mutable Mutex lock_;
  std::condition_variable_any changed_;
  bool ended_ VALTOR_GUARDED_BY(lock_) = false;
  uint64_t revision_ VALTOR_GUARDED_BY(lock_) = 0;
  bool answering_ VALTOR_GUARDED_BY(lock_) = false;
  std::string problem_ VALTOR_GUARDED_BY(lock_) = "not asked yet";
  double asOf_ VALTOR_GUARDED_BY(lock_) = 0;
  std::string document_ VALTOR_GUARDED_BY(lock_);
  BusParticipant::View bus_ VALTOR_GUARDED_BY(lock_);
  History history_ VALTOR_GUARDED_BY(lock_);
  std::vector<Cached> cache_ VALTOR_GUARDED_BY(lock_);  // of this revision
};

// The text of one event, as it stands in the strip.
std::string eventJSON(const History::Event& event);

}  // namespace valtor
