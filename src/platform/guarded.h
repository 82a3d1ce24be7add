// guarded: the frame of a piece of work that must not throw. It stands around whatever exported functions do, and
// around the steps of the engine that must be cleaned up after.
//
// The rule: every exception becomes a return code here, whatever its type, and no other way is needed.
#pragma once

#include <cstdint>
#include <new>
#include <utility>

#include "zonmdfile/platform/return_codes.h"

namespace zon {

// What the work returns, or the code for the exception that ends it. Callbacks may throw what is no std::exception.
template <class Work>
[[nodiscard]] std::uint32_t guarded(Work&& work) noexcept {
  try {
    return std::forward<Work>(work)();
  } catch (const std::bad_alloc&) {
    return GENREG_RC_NO_MEMORY;
  } catch (...) {
    return GENREG_RC_INTERNAL;
  }
}

}  // namespace zon
