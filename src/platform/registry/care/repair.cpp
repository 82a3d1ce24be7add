// See repair.h.
#include "platform/registry/care/repair.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/registry/care/corrupt_copies.h"
#include "platform/registry/care/rewrite.h"
#include "platform/registry/care/salvage.h"
#include "platform/registry/files/system_calls.h"

namespace zon {

namespace {

// A count that began over would hide what it is to tell.
void addUpToMost(std::uint64_t& count, std::uint64_t more) {
  count = count + more < count ? ~std::uint64_t{0} : count + more;
}

std::uint32_t keepOrphanedBackup(const WriterFiles& files, bool& isKept) {
  FileState state;
  const std::uint32_t rc = stateAt(files.directory.get(), files.settings.paths.backup.c_str(), state);
  if (rc == GENREG_RC_NOT_FOUND) return MD_RC_OK;
  if (rc != MD_RC_OK) return rc;
  isKept = S_ISREG(state.mode) && state.size > 0;
  return isKept ? keepAsCorruptCopy(files, files.settings.paths.backup) : MD_RC_OK;
}

// Without a backup that is only out of reach for now, what it holds would be lost for good.
std::uint32_t openBackup(const WriterFiles& files, Descriptor& backup) {
  const std::uint32_t rc = openRegular(files.directory.get(), files.settings.paths.backup.c_str(), O_RDONLY, 0, backup);
  return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
}

format::FileHeader countedHeader(const Salvage& salvage) {
  format::FileHeader header = salvage.header();
  addUpToMost(header.repairs, 1);
  addUpToMost(header.lostBytes, salvage.lostBytes());
  addUpToMost(header.lossyRepairs, salvage.lostBytes() > 0 ? 1 : 0);
  return header;
}

std::uint32_t writeSalvaged(WriterFiles& files, const Salvage& salvage, std::unique_ptr<LogWriter>& log,
                            bool& hasMetLoss) {
  const bool isLossy = salvage.lostBytes() > 0;
  std::size_t next = 0;
  Rewriting rewriting;
  rewriting.source = [&](std::byte* out, std::size_t& size) {
    return next == salvage.count() ? GENREG_RC_END_OF_SCAN : salvage.readRecord(next++, out, size);
  };
  rewriting.fill = salvage.hasRepeatedKeys() ? insertRepeated : isLossy ? insertNewestOfKeys : insertAndFindRepeats;
  rewriting.expected = {.records = salvage.count(), .bytes = salvage.frameBytes()};
  rewriting.former = countedHeader(salvage);
  rewriting.acknowledgedLosses = salvage.acknowledgedLosses();
  rewriting.commits = salvage.mostCommits() + 1;
  rewriting.keepsPresent = true;
  const Rewritten written = rewrite(files, rewriting, log);
  if (isLossy && written.isInPlace) hasMetLoss = true;
  return written.rc;
}

}  // namespace

std::uint32_t repairFile(WriterFiles& files, const LogView* view, std::unique_ptr<LogWriter>& log, bool& hasMetLoss) {
  Descriptor backup;
  if (const std::uint32_t rc = openBackup(files, backup)) return rc;
  Salvage salvage(files.type, Salvage::Access::LOCKED);
  const std::uint32_t rc = salvage.open(files.data.get(), backup.isOpen() ? backup.get() : -1, view);
  if (rc == MD_RC_OK) return writeSalvaged(files, salvage, log, hasMetLoss);
  if (rc != GENREG_RC_NOT_RECORD_FILE) return rc;
  FileState state;
  if (const std::uint32_t failed = stateOf(files.data.get(), state)) return failed;
  return state.size == 0 ? makeFile(files, log, hasMetLoss) : rc;
}

// A backup without its file is all that is left of records that somebody may miss. It is kept, and the new file tells
// of it.
std::uint32_t makeFile(WriterFiles& files, std::unique_ptr<LogWriter>& log, bool& hasMetLoss) {
  bool hasOrphan = false;
  if (const std::uint32_t rc = keepOrphanedBackup(files, hasOrphan)) return rc;
  Rewriting rewriting;
  rewriting.source = [](std::byte*, std::size_t&) { return GENREG_RC_END_OF_SCAN; };
  rewriting.former.lossyRepairs = hasOrphan ? 1 : 0;
  const Rewritten made = rewrite(files, rewriting, log);
  if (!hasOrphan || !made.isInPlace) return made.rc;
  hasMetLoss = true;
  // The other name keeps it. Should this fail, the first backup of the new file takes its place.
  if (made.rc == MD_RC_OK) systemCalls.unlinkAt(files.directory.get(), files.settings.paths.backup.c_str(), 0);
  return made.rc;
}

}  // namespace zon
