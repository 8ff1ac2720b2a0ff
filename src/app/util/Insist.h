#pragma once

#include <new>
#include <syslog.h>
#include <time.h>

namespace valtor {

// Carries out what must not fail, such as the end of an object: when memory runs out it says so,
// waits for a moment and begins anew, for as long as it takes. What is done by then must not be in
// the way. The name is for the log.
template <class Action>
void insist(const char* name, Action action) noexcept {
  for (bool told = false;; told = true) {
    try {
      action();
      return;
    } catch (const std::bad_alloc&) {
      // Without an allocation: there may be no memory still.
      if (!told) {
        syslog(LOG_ERR, "No memory to end %s: waiting until there is some.\n", name);
      }
      constexpr timespec kPause{0, 20'000'000};
      nanosleep(&kPause, nullptr);
    }
  }
}

}  // namespace valtor
