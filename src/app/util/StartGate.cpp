#include "app/util/StartGate.h"

namespace valtor {

void StartGate::shut() {
  const Locked lock(mutex_);
  open_ = false;
}

void StartGate::open() {
  const Locked lock(mutex_);
  open_ = true;
  changed_.notify_all();
}

void StartGate::wait(const std::function<bool()>& giveUp) {
  const Locked lock(mutex_);
  while (!open_ && !giveUp()) {
    changed_.wait(mutex_);
  }
}

void StartGate::wake() {
  const Locked lock(mutex_);
  changed_.notify_all();
}

}  // namespace valtor
