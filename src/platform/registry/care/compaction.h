// Compaction: the live records of a log, written anew in their order.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/registry/care/writer_files.h"
#include "platform/registry/log/log_writer.h"

namespace zon {

// REQUIRES: nothing is dirty. The backup is left as it is: it is one of the former file.
[[nodiscard]] std::uint32_t compactLog(WriterFiles& files, std::unique_ptr<LogWriter>& log);

}  // namespace zon
