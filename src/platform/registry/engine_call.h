// The frame of every exported function of the engine: what it answers is a code that callers know.
#ifndef ZON_PLATFORM_REGISTRY_ENGINE_CALL_H
#define ZON_PLATFORM_REGISTRY_ENGINE_CALL_H

#include <cstdint>
#include <utility>

#include "platform/guarded.h"
#include "platform/registry/file_io.h"

namespace zon {

// A place that cannot be read, for which there was no help, is the device's failure.
inline std::uint32_t codeForCallers(std::uint32_t rc) { return rc == RC_UNREADABLE ? GENREG_RC_IO_ERROR : rc; }

template <class Work>
std::uint32_t engineCall(Work&& work) noexcept {
  return codeForCallers(guarded(std::forward<Work>(work)));
}

}  // namespace zon

#endif
