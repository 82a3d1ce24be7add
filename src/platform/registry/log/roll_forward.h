// Taking frames that the slot does not account for into a state: those that no index leads to yet, and complete commits
// behind the published end.
//
// The rule: a commit is taken as a whole, after every frame of it has passed its checksums.
#pragma once

#include <cstdint>

#include "platform/registry/format/answer.h"
#include "platform/registry/log/file_header.h"
#include "platform/registry/log/log_view.h"

namespace zon {

// Chooses the slot of a header page, and begins the log with it.
[[nodiscard]] std::uint32_t beginWithPage(LogParts& log, int file, const HeaderPage& page);

// Takes the heads that neither overlay nor blocks lead to: those of the frames from indexedEnd on.
[[nodiscard]] std::uint32_t takeUnindexed(LogParts& log);

// Takes all complete commits behind the end. Memory: two records, and the heads.
[[nodiscard]] std::uint32_t rollForward(LogParts& log);

// Whether nothing was written behind the end: zeros, or the end of the file. GENREG_RC_DAMAGED when the file ends
// before.
Answer<bool> isTailZero(const LogParts& log);

}  // namespace zon
