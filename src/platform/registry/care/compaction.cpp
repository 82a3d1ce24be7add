// See compaction.h.
#include "platform/registry/care/compaction.h"

#include <algorithm>

#include "platform/registry/care/rewrite.h"
#include "platform/registry/log/log_scan.h"

namespace zon {

namespace {

// The slot's counts are believed no further than there are bytes on the disk. A changed record's frame becomes smaller
// when it is inserted anew.
LogWriter::Expected liveParts(const WriterFiles& files, const LogView& view) {
  const std::uint64_t bytes = dataBytes(files.data.get(), view.end());
  const std::uint64_t records = std::min(view.records(), bytes / format::LEAST_RECORD_FRAME);
  const std::uint64_t frames = std::min(view.slot().liveFrameBytes, bytes);
  return {.records = records, .bytes = frames - std::min(frames, records * sizeof(format::EventBody))};
}

}  // namespace

std::uint32_t compactLog(WriterFiles& files, std::unique_ptr<LogWriter>& log) {
  if (log->isDirty()) return GENREG_RC_INTERNAL;
  const LogView& view = log->view();
  LogScan scan(view);
  Rewriting rewriting;
  rewriting.source = [&scan](std::byte* out, std::size_t& size) {
    LiveRecord record{};
    return scan.next(out, record, size);
  };
  rewriting.fill = view.isUnique() ? insertDistinct : insertRepeated;
  rewriting.expected = liveParts(files, view);
  rewriting.former = view.header();
  rewriting.acknowledgedLosses = view.slot().acknowledgedLosses;
  rewriting.commits = view.slot().commits + 1;
  return rewrite(files, rewriting, log).rc;
}

}  // namespace zon
