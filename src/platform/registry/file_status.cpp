// See file_status.h.
#include "platform/registry/file_status.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <memory>
#include <string_view>

#include "platform/registry/care/salvage.h"
#include "platform/registry/files/file_io.h"
#include "platform/registry/log/index_blocks.h"
#include "platform/registry/reader.h"

namespace zon {

namespace {

constexpr std::string_view FILE_ENGINE_NAME = "file";

bool isArea(const Frame& frame, std::uint64_t packed) {
  const Segment segment = unpackSegment(packed);
  return segment.offset == frame.area.blocksOffset && segment.blockCount == frame.area.blockCount;
}

// Whether every frame and block up to the published end passes its checksum, and the index has its segments there.
std::uint32_t checkWholeLog(const Reader& reader, std::uint64_t fileSize, bool& damaged) {
  const LogView& view = reader.view();
  const RawLog log(view.type(), reader.file(), view.header(), fileSize);
  Frame frame;
  std::size_t segments = 0;
  damaged = false;
  for (std::uint64_t offset = format::LOG_START; offset < view.end(); offset = frame.end()) {
    damaged = !log.hasFrame(offset, frame) || frame.end() > view.end();
    if (!damaged && frame.kind == format::FrameKind::AREA) {
      if (segments < segmentCount(view.slot()) && isArea(frame, view.slot().segments[segments])) ++segments;
      const std::uint32_t rc = log.bytes().verifyBlocks(frame.area);
      if (rc != MD_RC_OK && !isDamage(rc)) return rc;
      damaged = rc != MD_RC_OK;
    }
    if (damaged) break;
  }
  damaged = damaged || segments != segmentCount(view.slot());
  return log.isDeviceFailing() ? GENREG_RC_IO_ERROR : MD_RC_OK;
}

std::uint64_t unacknowledged(const format::FileHeader& header, std::uint64_t acknowledged) {
  return header.lossyRepairs > acknowledged ? header.lossyRepairs - acknowledged : 0;
}

void fillStatus(const Reader& reader, std::uint64_t fileSize, GenRegStatus& status) {
  const format::Slot& slot = reader.view().slot();
  const format::FileHeader& header = reader.view().header();
  status.records = slot.records;
  status.recordBytes = slot.recordBytes;
  status.fileBytes = fileSize;
  status.usedBytes = reader.view().end();
  status.changes = slot.commits;
  status.backupBytes = slot.backupEnd;
  status.repairs = header.repairs;
  status.lostBytes = header.lostBytes;
  status.formatVersion = header.version;
  status.unacknowledgedLosses = unacknowledged(header, slot.acknowledgedLosses);
}

bool isNonEmptyFile(const char* path) {
  FileState state;
  return stateAt(AT_FDCWD, path, state) == MD_RC_OK && S_ISREG(state.mode) && state.size > 0;
}

bool isAnything(const char* path) {
  FileState state;
  return stateAt(AT_FDCWD, path, state) == MD_RC_OK;
}

// Of a file that cannot be opened, what is left of it tells something.
std::uint32_t fillFromSalvage(const Reader& reader, GenRegStatus& status) {
  std::unique_ptr<Salvage> intact;
  const std::uint32_t rc = reader.salvage(intact);
  if (rc == GENREG_RC_NOT_FOUND) return MD_RC_OK;  // an empty one
  status.damaged = 1;
  if (rc == GENREG_RC_DAMAGED) return MD_RC_OK;
  if (rc != MD_RC_OK) return rc;
  status.records = intact->count();
  status.repairs = intact->header().repairs;
  status.lostBytes = intact->header().lostBytes;
  status.formatVersion = intact->header().version;
  status.unacknowledgedLosses = unacknowledged(intact->header(), intact->acknowledgedLosses());
  return MD_RC_OK;
}

}  // namespace

std::uint32_t readStatus(const EngineSettings& settings, GenRegStatus& status) {
  status = GenRegStatus{};
  FILE_ENGINE_NAME.copy(status.engine, sizeof status.engine - 1);
  status.corruptCopy = isAnything(settings.corruptCopy) ? 1 : 0;
  Reader reader(settings.type, settings.file, settings.backup);
  const std::uint32_t opened = reader.open();
  if (opened == GENREG_RC_NOT_FOUND) {
    status.orphanedBackup = isNonEmptyFile(settings.backup) ? 1 : 0;
    return MD_RC_OK;
  }
  if (opened != MD_RC_OK && !isDamage(opened)) return opened;
  FileState state;
  if (const std::uint32_t rc = stateOf(reader.file(), state)) return rc;
  status.fileBytes = state.size;
  if (opened != MD_RC_OK) return fillFromSalvage(reader, status);
  fillStatus(reader, state.size, status);
  bool damaged = false;
  const std::uint32_t rc = checkWholeLog(reader, state.size, damaged);
  status.damaged = damaged ? 1 : 0;
  return rc;
}

}  // namespace zon
