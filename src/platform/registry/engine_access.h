// From a public engine object's settings to what the engine works with. The engine's classes are friends of nobody: the
// public classes hand their settings in.
#ifndef ZON_PLATFORM_REGISTRY_ENGINE_ACCESS_H
#define ZON_PLATFORM_REGISTRY_ENGINE_ACCESS_H

#include <cstdint>
#include <exception>
#include <new>

#include "zonmdfile/platform/return_codes.h"

namespace zon {

// Runs a piece of work of an exported function: no exception leaves it.
template <class Work>
std::uint32_t guarded(Work work) noexcept {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    return GENREG_RC_NO_MEMORY;
  } catch (const std::exception&) {
    return GENREG_RC_INTERNAL;
  }
}

}  // namespace zon

#endif
