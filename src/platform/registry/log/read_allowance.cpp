// What writers append beside a search counts as well, and is asked for when the log of its beginning is used up.
//
// The rule: as read_allowance.h says.
#include "platform/registry/log/read_allowance.h"

#include "platform/registry/files/file_io.h"

namespace zon {

std::uint32_t ReadAllowance::charge(const Frame& frame) {
  if (frame.size > left_ && !isRaised_) {
    FileState state;
    if (const std::uint32_t rc = stateOf(file_, state)) return rc;
    isRaised_ = true;
    left_ += state.size * readsOfAFrame_;
  }
  if (frame.size > left_) return GENREG_RC_DAMAGED;
  left_ -= frame.size;
  return MD_RC_OK;
}

}  // namespace zon
