// See file_status.h.
#include "platform/registry/file_status.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <memory>
#include <string_view>

#include "platform/registry/care/check.h"
#include "platform/registry/care/salvage.h"
#include "platform/registry/files/file_io.h"
#include "platform/registry/reader.h"

namespace zon {

namespace {

constexpr std::string_view FILE_ENGINE_NAME = "file";

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
  status.corruptCopy = isAnything(settings.names.corruptCopy.data()) ? 1 : 0;
  Reader reader(settings.type, settings.names.file, settings.names.backup);
  const std::uint32_t opened = reader.open();
  if (opened == GENREG_RC_NOT_FOUND) {
    status.orphanedBackup = isNonEmptyFile(settings.names.backup.data()) ? 1 : 0;
    return MD_RC_OK;
  }
  if (opened != MD_RC_OK && !isDamage(opened)) return opened;
  FileState state;
  if (const std::uint32_t rc = stateOf(reader.file(), state)) return rc;
  status.fileBytes = state.size;
  if (opened != MD_RC_OK) return fillFromSalvage(reader, status);
  fillStatus(reader, state.size, status);
  bool isDamaged = false;
  const std::uint32_t rc = checkLog(reader.view(), state.size, isDamaged);
  status.damaged = isDamaged ? 1 : 0;
  return rc;
}

}  // namespace zon
