#include "app/util/LineBudget.h"

#include <syslog.h>

namespace valtor {

namespace {

thread_local LineBudget* standing = nullptr;

}  // namespace

LineBudget::LineBudget() { standing = this; }

LineBudget::~LineBudget() {
  standing = nullptr;
  if (leftOut_ > 0) {
    syslog(LOG_WARNING, "%zu more lines about the elements of one request are left out.\n",
           leftOut_);
  }
}

bool LineBudget::spend() {
  const bool may = spendTrace();
  if (!may) {
    ++standing->leftOut_;
  }
  return may;
}

bool LineBudget::spendTrace() { return standing == nullptr || ++standing->asked_ <= kLines; }

}  // namespace valtor
