// Writing a record file anew: its records go into the temporary file in their order, which then takes the file's name.
//
// The rule: the present file is what it was, with its name and its lock, until the new one is complete and durable. The
// room for all of it is asked for before anything else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/registry/care/writer_files.h"
#include "platform/registry/log/log_writer.h"

namespace zon {

// Answers one record after the other of what is to be written, in scan order, then GENREG_RC_END_OF_SCAN.
using RecordSource = std::function<std::uint32_t(std::byte* out, std::size_t& size)>;

// How the records get into the new log; `record` is room for one. Each of the four is right for what is known of the
// records' whole keys.
using Filling = std::uint32_t (*)(LogWriter& fresh, const RecordSource& source, std::byte* record);
// They differ.
[[nodiscard]] std::uint32_t insertDistinct(LogWriter& fresh, const RecordSource& source, std::byte* record);
// Some come more than once.
[[nodiscard]] std::uint32_t insertRepeated(LogWriter& fresh, const RecordSource& source, std::byte* record);
// Nobody knows: it is found out.
[[nodiscard]] std::uint32_t insertAndFindRepeats(LogWriter& fresh, const RecordSource& source, std::byte* record);
// They differed, before a removal was lost: of a key that damage brought back the later record is the right one.
[[nodiscard]] std::uint32_t insertNewestOfKeys(LogWriter& fresh, const RecordSource& source, std::byte* record);

struct Rewriting {
  RecordSource source;
  Filling fill = insertDistinct;
  LogWriter::Expected expected{};
  // What the new file tells of the one before it.
  format::FileHeader former{};
  std::uint64_t acknowledgedLosses = 0;
  std::uint64_t commits = 0;  // the writing included
  // The present file is kept as the corrupt copy.
  bool keepsPresent = false;
};

struct Rewritten {
  std::uint32_t rc;
  bool isInPlace;  // also when nobody knows whether a power cut gives the name back
};

// When the new file is in place it is the one that is held, and `log` is open on it.
[[nodiscard]] Rewritten rewrite(WriterFiles& files, const Rewriting& rewriting, std::unique_ptr<LogWriter>& log);

}  // namespace zon
