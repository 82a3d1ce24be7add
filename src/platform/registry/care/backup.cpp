// See backup.h.
#include "platform/registry/care/backup.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "platform/guarded.h"
#include "platform/registry/care/temporary_file.h"
#include "platform/registry/files/file_rights.h"
#include "platform/registry/format/frame_checker.h"

namespace zon {

namespace {

constexpr std::uint64_t FIRST_BACKUP_DISTANCE = 4096;
constexpr std::uint64_t BACKUP_DISTANCE = 16384;
constexpr std::uint64_t BACKUP_SHARE = 16;
constexpr std::size_t COPY_PIECE = 256 * 1024;
// A file too small for a backup looks after what an earlier one left so often, by its commits.
constexpr std::uint64_t STALE_BACKUP_INTERVAL = 8;
constexpr std::uint64_t STALE_BACKUP_SLACK = 65536;

bool isBackupDue(const WriterFiles& files, const LogWriter& log) {
  const LogView& view = log.view();
  const std::uint64_t end = view.end();
  const std::uint64_t reached = view.slot().backupEnd;
  if (reached != 0) return end - reached >= std::max(BACKUP_DISTANCE, end / BACKUP_SHARE);
  if (end - format::LOG_START - log.areaBytes() >= FIRST_BACKUP_DISTANCE) return true;
  // What a larger file left is replaced all the same.
  FileState state;
  return view.slot().commits % STALE_BACKUP_INTERVAL == 0 &&
         stateAt(files.directory.get(), files.settings.paths.backup.c_str(), state) == MD_RC_OK &&
         S_ISREG(state.mode) && state.size > end + STALE_BACKUP_SLACK;
}

// Sealing the backup writes to a sector that has a header: a power cut may cost it, so that the other one must be good.
// The sync before the seal keeps the two from being under way at once.
std::uint32_t restoreHeader(const LogView& view, int backup, const HeaderPage& page) {
  if (page.bothHeaders()) return MD_RC_OK;
  return writeAt(backup, page.headerValid[0] ? format::HEADER_COPY_OFFSET : 0, bytesOf(view.header()));
}

std::uint32_t copyLog(const WriterFiles& files, const LogView& view, int backup, std::uint64_t from,
                      std::uint32_t chain) {
  FrameChecker checker(view.key(), from, chain);
  std::vector<std::byte> piece(static_cast<std::size_t>(std::min<std::uint64_t>(COPY_PIECE, view.end() - from)));
  for (std::uint64_t at = from; at < view.end();) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), view.end() - at));
    const std::span<std::byte> bytes = std::span(piece).first(wanted);
    std::size_t got = 0;
    if (const std::uint32_t rc = readAt(files.data.get(), at, bytes, got)) return rc;
    if (got < wanted || !checker.feed(bytes)) return GENREG_RC_DAMAGED;
    if (const std::uint32_t rc = writeAt(backup, at, bytes)) return rc;
    at += wanted;
  }
  return checker.endsWith(view.slot().chain) ? MD_RC_OK : GENREG_RC_DAMAGED;
}

// A backup is read frame by frame: its slot tells only how far it reaches.
std::uint32_t sealBackup(const LogView& view, int backup, std::uint64_t sequence) {
  format::Slot slot = view.slot();
  slot.overlayCount = 0;
  slot.overlayApplied = 0;
  slot.end = view.end();
  slot.sequence = sequence;
  std::fill(std::begin(slot.bootId), std::end(slot.bootId), std::uint8_t{0});
  slot.mountId = 0;
  sealSlot(slot, view.key().salt);
  return writeAt(backup, format::SLOT_OFFSET[sequence % 2], bytesOf(slot).first(slotSize(slot)));
}

// GENREG_RC_NOT_FOUND when this is not a backup of the present file that may be written to. One with other rights is
// not: somebody may have it open who must not see what comes now.
std::uint32_t extendBackup(const WriterFiles& files, const LogView& view, int backup) {
  FileState state;
  if (const std::uint32_t rc = stateOf(backup, state)) return rc;
  HeaderPage page;
  const std::uint32_t rc = readHeaderPage(backup, page);
  FileRights ours;
  FileRights rights;
  if (const std::uint32_t failed = rightsOf(files.data.get(), ours)) return failed;
  if (const std::uint32_t failed = rightsOf(backup, rights)) return failed;
  if (rights != ours) return GENREG_RC_NOT_FOUND;
  const bool isOurs =
      rc == MD_RC_OK && state.links == 1 && page.header.fileId == view.header().fileId && page.hasSlot();
  if (!isOurs) return GENREG_RC_NOT_FOUND;
  const format::Slot& slot = page.slots[page.newest()];
  if (slot.end > view.end() || view.chainAt(slot.end) != slot.chain) return GENREG_RC_NOT_FOUND;
  if (const std::uint32_t failed = reserve(backup, state.size, view.end())) return failed;
  if (const std::uint32_t failed = restoreHeader(view, backup, page)) return failed;
  if (const std::uint32_t failed = copyLog(files, view, backup, slot.end, slot.chain)) return failed;
  if (const std::uint32_t failed = syncData(backup)) return failed;
  return sealBackup(view, backup, slot.sequence + 1);
}

}  // namespace

std::uint32_t updateBackup(const WriterFiles& files, LogWriter& log) {
  if (!isBackupDue(files, log)) return MD_RC_OK;
  const LogView& view = log.view();
  // A log of holes was forged to fill the disk.
  if (dataBytes(files.data.get(), view.end()) < view.end() / 2) return MD_RC_OK;
  Descriptor backup;
  std::uint32_t rc = openRegular(files.directory.get(), files.settings.paths.backup.c_str(), O_RDWR, 0, backup);
  if (rc == MD_RC_OK) rc = extendBackup(files, view, backup.get());
  // Where the device does not take it, another place may serve.
  if (rc == GENREG_RC_NOT_FOUND || rc == GENREG_RC_IO_ERROR) rc = makeBackup(files, view);
  if (rc == MD_RC_OK) log.republish(view.end());
  return rc;
}

std::uint32_t makeBackup(const WriterFiles& files, const LogView& view) {
  TemporaryFile temporary(files);
  if (const std::uint32_t rc = temporary.make()) return rc;
  const int file = temporary.get();
  return guarded([&]() -> std::uint32_t {
    if (const std::uint32_t rc = temporary.takeOverRights()) return rc;
    if (const std::uint32_t rc = reserve(file, 0, view.end())) return rc;
    if (const std::uint32_t rc = writeAt(file, 0, bytesOf(view.header()))) return rc;
    if (const std::uint32_t rc = writeAt(file, format::HEADER_COPY_OFFSET, bytesOf(view.header()))) return rc;
    if (const std::uint32_t rc = copyLog(files, view, file, format::LOG_START, view.key().salt)) return rc;
    for (const std::uint64_t sequence : {std::uint64_t{1}, std::uint64_t{2}}) {
      if (const std::uint32_t rc = sealBackup(view, file, sequence)) return rc;
    }
    if (const std::uint32_t rc = syncFile(file)) return rc;
    return temporary.putInPlace(files.settings.paths.backup);
  });
}

}  // namespace zon
