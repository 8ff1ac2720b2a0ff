#include "bus/LinkHistory.h"

#include <utility>

namespace valtor {

LinkHistory::LinkHistory() { figures_.since = Clock::now(); }

bool LinkHistory::note(bool up, const std::string& reason, bool wanted) {
  const auto now = Clock::now();
  std::optional<End> end;
  if (!up) {
    end = End{reason, now};
  }
  const Locked lock(lock_);
  if (up == figures_.up) {
    return false;
  }
  if (end && !wanted) {
    figures_.losses.push_back(now);  // may fail, so before anything else
    if (figures_.losses.size() > kKeptLosses) {
      figures_.losses.pop_front();
    }
    ++figures_.lost;
  }
  if (end) {
    figures_.lastEnd = std::move(end);
  }
  figures_.up = up;
  figures_.since = now;
  return true;
}

LinkHistory::Figures LinkHistory::figures() const {
  const Locked lock(lock_);
  return figures_;
}

}  // namespace valtor
