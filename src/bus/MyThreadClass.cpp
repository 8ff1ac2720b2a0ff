#include "bus/MyThreadClass.h"

#include <exception>
#include <syslog.h>

#include "app/util/ErrnoText.h"

namespace valtor {

MyThreadClass::MyThreadClass(const char* name, int stackSize)
    : name_(name), stackSize_(stackSize) {}

MyThreadClass::~MyThreadClass() {
  syslog(LOG_DEBUG, "***%s Destructor called***\n", name_.c_str());
}

void* MyThreadClass::entry(void* self) {
  auto* thread = static_cast<MyThreadClass*>(self);
  try {
    thread->InternalThreadEntry();
  } catch (const std::exception& error) {
    syslog(LOG_CRIT, "Thread %s ends with an error: %s\n", thread->name(), error.what());
  }
  return nullptr;
}

bool MyThreadClass::start() {
  int status = 0;
  if (stackSize_ >= 1) {
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes); error != 0) {
      syslog(LOG_ERR, "***Error pthread_attr_init %d\n", error);
    }
    if (const int error =
            pthread_attr_setstacksize(&attributes, static_cast<std::size_t>(stackSize_));
        error != 0) {
      syslog(LOG_ERR, "***Error pthread_attr_setstacksize %d\n", error);
    }
    status = pthread_create(&handle_, &attributes, entry, this);
    if (const int error = pthread_attr_destroy(&attributes); error != 0) {
      syslog(LOG_ERR, "***Error pthread_attr_destroy %d\n", error);
    }
  } else {
    status = pthread_create(&handle_, nullptr, entry, this);
  }
  if (status != 0) {
    syslog(LOG_ERR, "Thread %s could not be started: %s\n", name(), errnoText(status).c_str());
    return false;
  }
  return true;
}

int MyThreadClass::join() { return pthread_join(handle_, nullptr); }

void MyThreadClass::end() { running_ = false; }

bool MyThreadClass::isRunning() { return running_; }

}  // namespace valtor
