// What GenRegFile::status tells of a record file and its companions, with a check of every byte that matters.
//
// The rule: nothing is changed and no lock is taken.
#pragma once

#include <cstdint>

#include "platform/registry/engine.h"

namespace zon {

// A file that is not there is an empty one; damage is told and no failure.
[[nodiscard]] std::uint32_t readStatus(const EngineSettings& settings, GenRegStatus& status);

}  // namespace zon
