// The frame of every exported function of the engine: it is traced, and throws nothing.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/guarded.h"
#include "platform/trace_scope.h"

namespace zon {

// `point` is the function's own, see trace_points.h.
template <class Work>
std::uint32_t engineCall(std::uint32_t point, Work&& work) noexcept {
  TraceScope trace(point);
  return trace.exit(guarded(std::forward<Work>(work)));
}

}  // namespace zon
