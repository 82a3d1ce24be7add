// The warning of a loss on its way from the stores of one entry point to its SQLCA.
//
// The rule: every entry point fills its SQLCA last, and that takes the warning away, so that none is left to the next.
#pragma once

#include <utility>

#include "zonmdfile/platform/admin.h"

namespace zon {

class LossWarning {
 public:
  static void note(bool hasMetLoss) {
    if (hasMetLoss) isDue = true;
  }
  static void forget() { isDue = false; }
  static void putInto(struct sqlca* sqlca) {
    if (std::exchange(isDue, false)) vekWarnOfLoss(sqlca);
  }

 private:
  // Entry points on different threads share nothing.
  static inline thread_local bool isDue = false;
};

}  // namespace zon
