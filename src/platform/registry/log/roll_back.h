// Clearing what lies behind the published end and does not count: a commit of a writer that died, or whose sync failed.
//
// The rule: I6, and I8: only what nobody has seen, and nobody ever will, is cleared; a mark goes first, so that the
// next writer sees what was left to do.
#pragma once

#include <cstdint>

#include "platform/registry/log/log_room.h"
#include "platform/registry/log/slot_writer.h"

namespace zon {

// Until this answers 0, the commit may be found after a crash.
[[nodiscard]] std::uint32_t clearBehind(int file, const LogRoom& room, SlotWriter& slots);

// Takes away the mark that clearBehind leaves.
[[nodiscard]] std::uint32_t removeMark(int file, const SlotWriter& slots);

}  // namespace zon
