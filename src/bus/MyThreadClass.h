#pragma once

#include <atomic>
#include <pthread.h>
#include <string>

namespace valtor {

// The base of every long-running worker: a named POSIX thread whose body is InternalThreadEntry,
// which loops while isRunning(). The owner starts it, and stops it with end() and join(), in this
// order, before it destroys the object: the destructor does neither. Any thread may call end() and
// isRunning(); start() and join() are the owner's.
class MyThreadClass {
 public:
  // The stack size is in bytes; below 1 means the system's default.
  explicit MyThreadClass(const char* name, int stackSize = -1);
  virtual ~MyThreadClass();
  MyThreadClass(const MyThreadClass&) = delete;
  MyThreadClass& operator=(const MyThreadClass&) = delete;

  // Creates the thread. False when the system refuses, which is logged; join() must then not be
  // called.
  bool start();
  // Waits for the thread's end; the status of pthread_join.
  int join();
  // Asks the thread to end, without waiting. Subclasses may also wake it.
  virtual void end();
  virtual bool isRunning();

 protected:
  // The thread's body. Nothing may be thrown out of it; what is, is logged and ends the thread.
  virtual void InternalThreadEntry() = 0;

  const char* name() const { return name_.c_str(); }

 private:
  static void* entry(void* self);

  std::string name_;
  std::atomic<bool> running_{true};
  pthread_t handle_{};
  int stackSize_;
};

}  // namespace valtor
