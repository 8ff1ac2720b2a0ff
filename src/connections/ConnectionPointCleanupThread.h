#pragma once

#include <chrono>

#include "app/util/Mutex.h"
#include "app/util/UniqueDescriptor.h"
#include "bus/MyThreadClass.h"

namespace valtor {

class AbstractConnectionPointManager;

// The worker that removes a manager's marked and disconnected server connection points in the
// background: after every time-out it runs one purge of its manager. The manager owns it and
// outlives it; stopping is end(), which any thread may call and which wakes the thread, then
// join(). The thread never waits for the manager's lock while it collects, but it does when it
// writes the incoming-client file, so whoever joins it holds no lock of the manager.
class ConnectionPointCleanupThread : public MyThreadClass {
 public:
  static constexpr std::chrono::milliseconds kPollTimeout{10000};

  // Stops the process when the system has no pipe left.
  explicit ConnectionPointCleanupThread(AbstractConnectionPointManager& manager,
                                        std::chrono::milliseconds pollTimeout = kPollTimeout);
  ~ConnectionPointCleanupThread() override;

  void end() override;

 protected:
  void InternalThreadEntry() override;

 private:
  void createSelfPipe();
  void destroySelfPipe();
  int wakeUpDescriptor();
  // One purge; what it throws is logged, and the next pass tries again.
  void purge();

  AbstractConnectionPointManager& manager_;
  const std::chrono::milliseconds pollTimeout_;
  // Without it a late end() would write into a pipe that nobody reads any more, or into whatever
  // got the closed descriptor's number next.
  Mutex pipeLock_;
  UniqueDescriptor readEnd_ VALTOR_GUARDED_BY(pipeLock_);
  UniqueDescriptor writeEnd_ VALTOR_GUARDED_BY(pipeLock_);
};

}  // namespace valtor
