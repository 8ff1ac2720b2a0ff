#include "app/util/StartGate.h"

#include "app/util/Watchdog.h"

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

void StartGate::wait(const std::stop_token& stop) {
  const Locked lock(mutex_);
  Watchdog::wait(changed_, mutex_, stop, [this]() VALTOR_REQUIRES(mutex_) { return open_; });
}

}  // namespace valtor
