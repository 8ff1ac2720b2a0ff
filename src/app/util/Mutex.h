#pragma once

#include <mutex>
#include <pthread.h>

#include "app/util/ThreadAnnotations.h"
#include "app/util/Watchdog.h"

namespace valtor {

// Two annotated locks and the scope that holds either. All are taken with Locked, never by hand,
// except where a try-lock decides. None is recursive. The order in which locks may be taken is in
// docs/architecture.md.

// A std::mutex. lock() throws std::system_error when the system refuses. It meets BasicLockable, so
// std::condition_variable_any can wait on it.
class VALTOR_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() VALTOR_ACQUIRE() {
    const Watchdog::LockWait wait;
    mutex_.lock();
  }
  void unlock() VALTOR_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// A plain POSIX mutex for owners that report why a try-lock failed.
class VALTOR_CAPABILITY("mutex") PosixMutex {
 public:
  PosixMutex() = default;
  ~PosixMutex() { pthread_mutex_destroy(&mutex_); }
  PosixMutex(const PosixMutex&) = delete;
  PosixMutex& operator=(const PosixMutex&) = delete;

  void lock() VALTOR_ACQUIRE() {
    const Watchdog::LockWait wait;
    pthread_mutex_lock(&mutex_);
  }
  void unlock() VALTOR_RELEASE() { pthread_mutex_unlock(&mutex_); }
  // Takes the lock when it is free. 0, or the status of pthread_mutex_trylock (EBUSY).
  int tryLock() VALTOR_TRY_ACQUIRE(0) { return pthread_mutex_trylock(&mutex_); }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a lock for a scope.
template <class MutexType>
class VALTOR_SCOPED_CAPABILITY Locked {
 public:
  explicit Locked(MutexType& mutex) VALTOR_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  // Takes over a lock that the caller holds already, from a try-lock.
  Locked(MutexType& mutex, std::adopt_lock_t /*held*/) VALTOR_REQUIRES(mutex) : mutex_(mutex) {}
  ~Locked() VALTOR_RELEASE() { mutex_.unlock(); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  MutexType& mutex_;
};

}  // namespace valtor
