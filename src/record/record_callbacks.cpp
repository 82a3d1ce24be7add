// The one callback helper that is no template.
//
// The rule: diagnostics write to standard output and are called by nobody inside the library.
#include "record/record_callbacks.h"

#include <cstdio>

#include "zonmdfile/platform/admin.h"

namespace zon {

void printReturnCode(long rc) {
  if (rc == 0) return;
  std::printf("RC = %d (", static_cast<int>(rc));
  std::printf("%s)\n", ecfErrorGetDescription(static_cast<std::uint32_t>(rc)));
}

}  // namespace zon
