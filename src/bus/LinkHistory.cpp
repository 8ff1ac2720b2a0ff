#include "bus/LinkHistory.h"

namespace valtor {

LinkHistory::LinkHistory() { figures_.since = Clock::now(); }

bool LinkHistory::note(bool up, const char* reason, bool wanted) {
  const auto now = Clock::now();
  const Locked lock(lock_);
  if (up == figures_.up) {
    return false;
  }
  figures_.up = up;
  figures_.since = now;
  if (up) {
    return true;
  }
  // What may fail comes last.
  if (!wanted) {
    ++figures_.lost;
    if (figures_.losses.size() == kKeptLosses) {
      figures_.losses.pop_front();
    }
    figures_.losses.push_back(now);
  }
  figures_.lastEnd = End{reason, now};
  return true;
}

LinkHistory::Figures LinkHistory::figures() const {
  const Locked lock(lock_);
  return figures_;
}

}  // namespace valtor
