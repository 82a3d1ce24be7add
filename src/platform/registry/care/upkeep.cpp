// See upkeep.h.
#include "platform/registry/care/upkeep.h"

#include <algorithm>
#include <cerrno>

#include "platform/guarded.h"
#include "platform/registry/care/backup.h"
#include "platform/registry/care/check.h"
#include "platform/registry/care/compaction.h"
#include "platform/registry/care/salvage.h"
#include "platform/registry/files/system_calls.h"

namespace zon {

namespace {

// The file may be twice as large as its live records and this.
constexpr std::uint64_t SPACE_SLACK = 65536;
constexpr std::uint64_t LEAST_GAIN = 16384;
// Where damage keeps upkeep from its work, and nobody may repair it, it is tried so often, by the file's commits.
constexpr std::uint64_t BLOCKED_UPKEEP_INTERVAL = 64;

bool isTooLarge(const LogWriter& log) {
  const format::Slot& slot = log.view().slot();
  const std::uint64_t limit = 2 * (std::min(slot.recordBytes, slot.liveFrameBytes) + SPACE_SLACK);
  if (log.isShortOfRoom() && log.deadBytes() >= LEAST_GAIN) return true;
  return log.fileSize() > limit - limit / 8 && log.deadBytes() >= std::max(LEAST_GAIN, slot.liveFrameBytes / 8);
}

bool hasBackup(const WriterFiles& files, FileState& backup) {
  return files.settings.keepsBackup &&
         stateAt(files.directory.get(), files.settings.paths.backup.c_str(), backup) == MD_RC_OK;
}

// On a full disk only the backup can make room for the file to become smaller; the next one is made when there is room
// again. Not where it may be needed: for a log that is not whole, which is told, or that would not fit its room.
std::uint32_t giveUpBackup(const WriterFiles& files, const LogWriter& log) {
  FileState backup;
  if (!hasBackup(files, backup) || backup.size < log.view().slot().liveFrameBytes) return GENREG_RC_NO_SPACE;
  bool isDamaged = false;
  if (const std::uint32_t rc = checkLog(log.view(), log.fileSize(), isDamaged)) return rc;
  if (isDamaged) return GENREG_RC_DAMAGED;
  const char* name = files.settings.paths.backup.c_str();
  return systemCalls.unlinkAt(files.directory.get(), name, 0) == 0 ? MD_RC_OK : codeOfErrno(errno);
}

}  // namespace

bool isUpkeepPutOff(const LogWriter& log) {
  return log.isUpkeepBlocked() && log.view().slot().commits % BLOCKED_UPKEEP_INTERVAL != 0;
}

std::uint32_t doUpkeep(WriterFiles& files, std::unique_ptr<LogWriter>& log) {
  const std::uint32_t rc =
      guarded([&] { return isTooLarge(*log) || log->isIndexFull() ? compactWithBackup(files, log) : MD_RC_OK; });
  if (!files.settings.keepsBackup || isDamage(rc)) return rc;
  return guarded([&] { return updateBackup(files, *log); });
}

std::uint32_t compactWithBackup(WriterFiles& files, std::unique_ptr<LogWriter>& log) {
  std::uint32_t rc = compactLog(files, log);
  if (rc == GENREG_RC_NO_SPACE) {
    rc = giveUpBackup(files, *log);
    if (rc == MD_RC_OK) rc = compactLog(files, log);
  }
  if (rc != MD_RC_OK) return rc;
  FileState backup;
  const bool isBackedUp = hasBackup(files, backup) && makeBackup(files, log->view()) == MD_RC_OK;
  log->republish(isBackedUp ? log->view().end() : 0);
  return MD_RC_OK;
}

}  // namespace zon
