// Who answers the engine's system calls: a simulated disk, or the system.
#pragma once

#include <cstdint>

#include "platform/registry/harness/simulated_disk.h"

namespace zon::test {

// A page of the system's cache and a sector of the device.
constexpr std::uint64_t PAGE = 4096;

// Null: the system answers again.
void letAnswer(SimulatedDisk* disk);

}  // namespace zon::test
