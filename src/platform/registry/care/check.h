// The check of a whole log, frame by frame, as it is published.
//
// The rule: nothing is changed, and what cannot be read is damage unless the device gives nothing any more.
#pragma once

#include <cstdint>

#include "platform/registry/log/log_view.h"

namespace zon {

// Whether a frame or block up to the end fails its checksum, or the index has a segment that is not there.
[[nodiscard]] std::uint32_t checkLog(const LogView& view, std::uint64_t fileSize, bool& isDamaged);

}  // namespace zon
