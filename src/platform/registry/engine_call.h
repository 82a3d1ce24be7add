// The frame of every exported function of the engine: it is traced, and what it answers is a code that callers know.
#ifndef ZON_PLATFORM_REGISTRY_ENGINE_CALL_H
#define ZON_PLATFORM_REGISTRY_ENGINE_CALL_H

#include <cstdint>
#include <utility>

#include "platform/guarded.h"
#include "platform/registry/file_io.h"
#include "platform/trace_scope.h"

namespace zon {

// A place that cannot be read, for which there was no help, is the device's failure.
inline std::uint32_t codeForCallers(std::uint32_t rc) { return rc == RC_UNREADABLE ? GENREG_RC_IO_ERROR : rc; }

// `point` is the function's own, see trace_points.h.
template <class Work>
std::uint32_t engineCall(std::uint32_t point, Work&& work) noexcept {
  TraceScope trace(point);
  return trace.exit(codeForCallers(guarded(std::forward<Work>(work))));
}

}  // namespace zon

#endif
