// What a writer does about what lies behind the newest slot's end, before it writes anything of its own: what another
// run of the machine left there was acknowledged, as far as anybody knows, and is rolled forward over and published;
// what this run left is of a writer that died or failed, nobody has seen it, and it is rolled back.
//
// The rule: after recovery everything behind the end is zero, on the disk too (I6).
#pragma once

#include <cstdint>

#include "platform/registry/log/log_room.h"
#include "platform/registry/log/log_view.h"
#include "platform/registry/log/slot_writer.h"

namespace zon {

// Opens the log for a writer. GENREG_RC_DAMAGED when repair is due.
[[nodiscard]] std::uint32_t recover(int file, std::uint64_t fileSize, LogParts& log, LogRoom& room, SlotWriter& slots);

}  // namespace zon
