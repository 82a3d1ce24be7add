// Every step may be cut short by a crash or a failure, and the next writer begins once more.
//
// The rule: I8: bytes that count are only written over with themselves.
#include "platform/registry/log/recovery.h"

#include <algorithm>
#include <array>

#include "platform/registry/files/file_io.h"
#include "platform/registry/log/file_header.h"
#include "platform/registry/log/roll_back.h"
#include "platform/registry/log/roll_forward.h"

namespace zon {

namespace {

constexpr std::size_t PIECE_SIZE = 8192;

// A header that is lost, as with the slot in its sector when the power went while that was written, is written again
// before anything else is: the other sector may be the next to be lost. The syncs keep the two from being under way at
// once.
std::uint32_t restoreHeaders(const HeaderPage& page, int file, std::uint64_t fileSize, const SlotWriter& slots) {
  if (page.bothHeaders()) return MD_RC_OK;
  if (const std::uint32_t rc = requireAllowedSize(fileSize)) return rc;
  if (const std::uint32_t rc = slots.sync()) return rc;
  const std::uint64_t offset = page.headerValid[0] ? format::HEADER_COPY_OFFSET : 0;
  if (const std::uint32_t rc = writeAt(file, offset, bytesOf(page.header))) return rc;
  return slots.sync();
}

std::uint32_t writeAgain(int file, std::uint64_t from, std::uint64_t to) {
  std::array<std::byte, PIECE_SIZE> piece;
  for (std::uint64_t at = from; at < to;) {
    std::size_t got = 0;
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), to - at));
    if (const std::uint32_t rc = readAt(file, at, std::span(piece).first(wanted), got)) return rc;
    if (got < wanted) return GENREG_RC_DAMAGED;
    if (const std::uint32_t rc = writeAt(file, at, std::span(piece).first(got))) return rc;
    at += got;
  }
  return MD_RC_OK;
}

// A commit of this run that no slot shows is of a writer that died, or whose sync failed: nobody has seen it, and
// nobody ever will.
std::uint32_t rollBackUnpublished(LogParts& log, const LogRoom& room, SlotWriter& slots) {
  if (const std::uint32_t rc = clearBehind(log.bytes.file(), room, slots)) return rc;
  log.state.slot() = slots.published();
  return removeMark(log.bytes.file(), slots);
}

// The very same bytes are written again, as the kernel may take pages for clean whose sync had failed; what follows is
// wiped, as a power cut may have kept the second part of a commit without the first. All of it is synced, and published
// as of this run, before anything else is written. Should any of this fail, whatever counted is where it was.
std::uint32_t rollForwardUnpublished(LogParts& log, const LogRoom& room, SlotWriter& slots, bool mayBeTorn) {
  log.state.slot().overlayApplied = 0;
  const std::uint64_t published = log.state.end();
  if (const std::uint32_t rc = rollForward(log)) return rc;
  if (!mayBeTorn) {
    // One slot is lost, and with it where the log ends.
    const Answer<bool> isZero = room.isZeroFrom(log.state.end());
    if (isZero.rc != MD_RC_OK) return isZero.rc;
    if (!isZero.value) return GENREG_RC_DAMAGED;
  }
  if (const std::uint32_t rc = writeAgain(log.bytes.file(), published, log.state.end())) return rc;
  if (const std::uint32_t rc = room.wipeFrom(log.state.end())) return rc;
  if (const std::uint32_t rc = slots.sync()) return rc;
  return slots.publishHeads(log.state.unindexedHeads());
}

std::uint32_t recoverTail(const HeaderPage& page, LogParts& log, const LogRoom& room, SlotWriter& slots) {
  const Run run = compareRuns(slots.run(), log.state.slot());
  // What was applied to the blocks without a sync may be gone.
  if (run == Run::OTHER) log.state.slot().overlayApplied = 0;
  slots.begin(log.bytes.file(), !page.bothSlots());  // the slot that is no good is the one to write
  const Answer<bool> isClean = isTailZero(log);
  if (isClean.rc != MD_RC_OK) return isClean.rc;
  if (isClean.value && page.bothSlots() && run != Run::OTHER) return MD_RC_OK;
  const std::uint64_t touched = std::max(room.fileSize(), log.state.end() + format::TERMINATOR_SIZE);
  if (const std::uint32_t rc = requireAllowedSize(touched)) return rc;
  if (page.bothSlots() && run == Run::SAME) return rollBackUnpublished(log, room, slots);
  return rollForwardUnpublished(log, room, slots, page.bothSlots() || run == Run::OTHER);
}

}  // namespace

std::uint32_t recover(int file, std::uint64_t fileSize, LogParts& log, LogRoom& room, SlotWriter& slots) {
  HeaderPage page;
  if (const std::uint32_t rc = readHeaderPage(file, page)) return rc;
  if (const std::uint32_t rc = beginWithPage(log, file, page)) return rc;
  const format::Slot& slot = log.state.slot();
  if (!page.isWhole || slot.end > fileSize || slot.sequence >= format::LAST_SEQUENCE) return GENREG_RC_DAMAGED;
  room.begin(file, fileSize);
  slots.begin(file, false);
  if (const std::uint32_t rc = restoreHeaders(page, file, fileSize, slots)) return rc;
  if (const std::uint32_t rc = takeUnindexed(log)) return rc;
  if (const std::uint32_t rc = recoverTail(page, log, room, slots)) return rc;
  log.bytes.beginTail(log.state.end());
  return MD_RC_OK;
}

}  // namespace zon
