#pragma once

#include <pthread.h>

#include "app/util/ThreadAnnotations.h"

namespace valtor {

// A recursive POSIX mutex: the thread that holds it may lock it again and unlocks it as often. Held
// with Locked, once, by a public operation; what that calls declares VALTOR_REQUIRES.
class VALTOR_CAPABILITY("mutex") MyMutexClass {
 public:
  MyMutexClass();
  virtual ~MyMutexClass();
  MyMutexClass(const MyMutexClass&) = delete;
  MyMutexClass& operator=(const MyMutexClass&) = delete;

  void lock() VALTOR_ACQUIRE() { pthread_mutex_lock(&mutex_); }
  void unlock() VALTOR_RELEASE() { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_{};
};

}  // namespace valtor
