// The backup: a copy of the log that trails it.
//
// The rule: nothing that fails its checksum gets into the backup, which may be the last to have it right.
#pragma once

#include <cstdint>

#include "platform/registry/care/writer_files.h"
#include "platform/registry/log/log_writer.h"

namespace zon {

// Brings the backup up to date when it trails too far, and notes so in the slot. REQUIRES: nothing is dirty.
[[nodiscard]] std::uint32_t updateBackup(const WriterFiles& files, LogWriter& log);

// Makes one in place of what has its name.
[[nodiscard]] std::uint32_t makeBackup(const WriterFiles& files, const LogView& view);

}  // namespace zon
