#include "bus/MyMutexClass.h"

namespace valtor {

MyMutexClass::MyMutexClass() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

MyMutexClass::~MyMutexClass() { pthread_mutex_destroy(&mutex_); }

}  // namespace valtor
