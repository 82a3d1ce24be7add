// Repair: a damaged file is written anew from what it and its backup hold intact, and kept as the corrupt copy. A file
// that is missing is made, with the count of a loss when it had a backup.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/registry/care/writer_files.h"
#include "platform/registry/log/log_writer.h"

namespace zon {

// With a view: the state that it has of the file, changes that wait in memory included. `hasMetLoss` is set when
// records were lost, or may have been.
[[nodiscard]] std::uint32_t repairFile(WriterFiles& files, const LogView* view, std::unique_ptr<LogWriter>& log,
                                       bool& hasMetLoss);

// GENREG_RC_DUPLICATE_KEY when somebody else made the file meanwhile.
[[nodiscard]] std::uint32_t makeFile(WriterFiles& files, std::unique_ptr<LogWriter>& log, bool& hasMetLoss);

}  // namespace zon
