#include "connections/ConnectionPointCleanupThread.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include "app/util/ErrnoText.h"
#include "connections/AbstractConnectionPointManager.h"

namespace valtor {

namespace {

constexpr int kStackSize = 1048576;
constexpr useconds_t kPollErrorPause = 1000000;  // microseconds

void reportError(const char* where, const char* what) {
  const std::string reason = errnoText(errno);
  std::fprintf(stderr, "%s %s error:%s", where, what, reason.c_str());
}

}  // namespace

ConnectionPointCleanupThread::ConnectionPointCleanupThread(AbstractConnectionPointManager& manager,
                                                           std::chrono::milliseconds pollTimeout)
    : MyThreadClass(manager.getManagerType().c_str(), kStackSize),
      manager_(manager),
      pollTimeout_(pollTimeout) {
  createSelfPipe();
}

// Closes the pipe of a thread that never ran; one that ran has closed it itself.
ConnectionPointCleanupThread::~ConnectionPointCleanupThread() = default;

void ConnectionPointCleanupThread::createSelfPipe() {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) {
    reportError("void ConnectionPointCleanupThread::createSelfPipe()", "pipe");
    std::abort();
  }
  const Locked lock(pipeLock_);
  readEnd_.reset(ends[0]);
  writeEnd_.reset(ends[1]);
}

void ConnectionPointCleanupThread::destroySelfPipe() {
  constexpr const char* kWhere = "void ConnectionPointCleanupThread::destroySelfPipe()";
  const Locked lock(pipeLock_);
  if (readEnd_.reset() == -1) {
    reportError(kWhere, "close pipe");
  }
  if (writeEnd_.reset() == -1) {
    reportError(kWhere, "close pipe");
  }
}

void ConnectionPointCleanupThread::end() {
  constexpr const char* kWhere = "virtual void ConnectionPointCleanupThread::end()";
  const bool wasRunning = isRunning();
  MyThreadClass::end();
  const Locked lock(pipeLock_);
  if (!wasRunning || !writeEnd_.valid()) {
    return;
  }
  const char wakeUp = 1;
  const ssize_t written = ::write(writeEnd_.get(), &wakeUp, 1);
  if (written < 0) {
    syslog(LOG_ERR, "%s Error writing to self-pipe: %s", kWhere, errnoText(errno).c_str());
  } else if (written == 0) {
    syslog(LOG_ERR, "%s 0 bytes written to self-pipe: %s", kWhere, errnoText(errno).c_str());
  }
}

int ConnectionPointCleanupThread::wakeUpDescriptor() {
  const Locked lock(pipeLock_);
  return readEnd_.get();
}

void ConnectionPointCleanupThread::InternalThreadEntry() {
  pollfd wakeUp{wakeUpDescriptor(), POLLIN, 0};
  while (isRunning()) {
    const int ready = ::poll(&wakeUp, 1, static_cast<int>(pollTimeout_.count()));
    if (ready < 0) {
      reportError("virtual void ConnectionPointCleanupThread::InternalThreadEntry()", "poll");
      usleep(kPollErrorPause);
    } else if (ready == 0) {
      purge();
    } else {
      break;
    }
  }
  destroySelfPipe();
}

void ConnectionPointCleanupThread::purge() {
  try {
    manager_.purgeMarkedClients();
    manager_.writeAgain();
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "Purging %s connection points failed, tried again at the next pass: %s\n",
           name(), error.what());
  }
}

}  // namespace valtor
