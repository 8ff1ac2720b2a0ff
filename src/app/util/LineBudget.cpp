#include "app/util/LineBudget.h"

#include <syslog.h>

namespace valtor {

namespace {

thread_local LineBudget* standing = nullptr;

}  // namespace

LineBudget::LineBudget() { standing = this; }

LineBudget::~LineBudget() {
  standing = nullptr;
  if (asked_ > kLines) {
    syslog(LOG_WARNING, "%zu more lines about the elements of one request are left out.\n",
           asked_ - kLines);
  }
}

bool LineBudget::spend() { return standing == nullptr || ++standing->asked_ <= kLines; }

}  // namespace valtor
