// Upkeep after a commit: when a file is written anew, and its backup brought up to date.
//
// The rule: nothing here can fail the commit. What does not work now is tried again after a later one. Damage that
// upkeep meets is told, for the session to repair: nobody else may come across it, and the file would never be written
// anew nor backed up.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/registry/care/writer_files.h"
#include "platform/registry/log/log_writer.h"

namespace zon {

// Compacts the log or updates its backup where that is due.
[[nodiscard]] std::uint32_t doUpkeep(WriterFiles& files, std::unique_ptr<LogWriter>& log);

// Damage kept it from its work, and the writer may not repair it: it is not this commit's turn to try again.
bool isUpkeepPutOff(const LogWriter& log);

// A backup of what compaction gives up would be no smaller than before: it is replaced with it.
[[nodiscard]] std::uint32_t compactWithBackup(WriterFiles& files, std::unique_ptr<LogWriter>& log);

}  // namespace zon
