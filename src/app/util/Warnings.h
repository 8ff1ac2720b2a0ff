#pragma once

#include <array>
#include <cstdint>

namespace valtor {

// What went wrong how often since the process began, for whoever asks how it is. Each kind is
// counted where its log line is written, what costs nothing left out. Any thread may call these;
// they take no lock.
enum class Warning {
  NotConnected,    // a message dropped since its link is down
  SendFailed,      // a link that broke while a message was sent
  SendGaveUp,      // a message dropped since its socket stayed full
  RouterStalled,   // a router that took nothing while too much waited for it
  LostWithLink,    // a link that ended with messages waiting for it
  ReadingPaused,   // more arrived than could be handled
  MessageFailed,   // a message whose handling failed
  MessageCircles,  // the same message again and again
  Count
};

struct WarningCount {
  const char* name;
  uint64_t count;
};

void countWarning(Warning kind);

// All kinds, those that never happened included.
std::array<WarningCount, static_cast<std::size_t>(Warning::Count)> warningCounts();

}  // namespace valtor
