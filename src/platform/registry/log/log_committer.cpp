// The steps of a commit, and what follows it.
//
// The rule: stage_ changes where the table in log_committer.h says, and before the first byte of a step is written.
#include "platform/registry/log/log_committer.h"

#include <algorithm>
#include <vector>

#include "platform/guarded.h"
#include "platform/registry/files/file_io.h"
#include "platform/registry/log/index_blocks.h"
#include "platform/registry/log/index_update.h"
#include "platform/registry/log/roll_back.h"

namespace zon {

namespace {

// One more commit with this many new heads must fit the overlay, or the blocks take over.
constexpr std::size_t OVERLAY_HEADROOM = 8;
constexpr std::uint64_t LARGE_COMMIT = 256 * 1024;

bool needsCheckpoint(std::size_t entries) { return entries + OVERLAY_HEADROOM > format::OVERLAY_CAPACITY; }

}  // namespace

// Whatever is written without growing the file lies below this: slots, blocks, frames, and the mark and zeros that roll
// a commit back. To be asked before the first byte: what would have to be rolled back could not be written either.
std::uint32_t LogCommitter::requireAllowedSizes() const {
  return requireAllowedSize(std::max(room_.fileSize(), slots_.published().end + format::TERMINATOR_SIZE));
}

std::uint32_t LogCommitter::commit() {
  if (!isDirty()) return MD_RC_OK;
  if (const std::uint32_t rc = requireAllowedSizes()) return rc;
  const std::uint64_t start = slots_.published().end;
  const std::uint32_t rc = guarded([this] { return commitAppended(); });
  if (rc != MD_RC_OK) return rollBack() ? rc : GENREG_RC_DURABILITY_UNKNOWN;
  // What fails here is tried again by a later commit.
  const std::uint64_t size = log_.state.end() - start;
  isIndexDamaged_ = guarded([&] { return checkpointIfDue(size); }) == GENREG_RC_DAMAGED;
  room_.cutReserve(log_.state.end());
  return MD_RC_OK;
}

std::uint32_t LogCommitter::commitAppended() {
  const std::vector<format::OverlayEntry> heads = log_.state.unindexedHeads();
  if (const std::uint32_t rc = addSegmentFor(heads.size())) return rc;
  if (const std::uint32_t rc = writeAll()) return rc;
  if (const std::uint32_t rc = sync()) return rc;
  return publish(heads);
}

std::uint32_t LogCommitter::writeAll() {
  if (const std::uint32_t rc = appender_.makeRoomForTail()) return rc;
  stage_ = Stage::WRITTEN;
  return appender_.writeTail();
}

std::uint32_t LogCommitter::sync() {
  if (const std::uint32_t rc = slots_.syncWithSlot()) return rc;
  stage_ = Stage::DURABLE;
  return MD_RC_OK;
}

// I2: what the slot shows is durable.
std::uint32_t LogCommitter::publish(const std::vector<format::OverlayEntry>& heads) {
  if (const std::uint32_t rc = slots_.publishHeads(heads)) return rc;
  stage_ = Stage::PUBLISHED;
  appender_.beginPublication();
  return MD_RC_OK;
}

// Whether the commit will be found after a crash, nobody knows when this fails. I8: only what this writer appended
// itself is touched.
bool LogCommitter::rollBack() {
  if (stage_ != Stage::WRITTEN && stage_ != Stage::DURABLE) return true;
  stage_ = Stage::ROLLED_BACK;
  if (clearBehind(log_.bytes.file(), room_, slots_) != MD_RC_OK) return false;
  static_cast<void>(removeMark(log_.bytes.file(), slots_));  // it does no harm
  return true;
}

// The area goes with the commit whose heads need it.
std::uint32_t LogCommitter::addSegmentFor(std::size_t entries) {
  const format::Slot& slot = log_.state.slot();
  const std::size_t segments = segmentCount(slot);
  if (!needsCheckpoint(entries) || segments + 1 >= format::MAX_SEGMENTS) return MD_RC_OK;
  std::uint64_t total = 0;
  for (std::size_t segment = 0; segment < segments; ++segment)
    total += unpackSegment(slot.segments[segment]).blockCount;
  const std::uint64_t newest = segments == 0 ? 0 : unpackSegment(slot.segments[segments - 1]).blockCount;
  if (slot.segmentEntries + entries <= segmentCapacity(newest)) return MD_RC_OK;
  const std::uint64_t blocks = std::max({LEAST_BLOCKS, total, entries / (format::BLOCK_ENTRIES / 2)});
  // A removal adds no lists: there is an entry already for each of its heads, or room for the few that wait.
  if (appender_.hasOnlyRemovals() && isOutOfSpace(appender_.makeRoomForArea(blocks))) return MD_RC_OK;
  return appendArea(blocks);
}

std::uint32_t LogCommitter::appendArea(std::uint64_t blockCount) {
  if (const std::uint32_t rc = appender_.makeRoomForArea(std::min(blockCount, format::MAX_BLOCKS))) return rc;
  stage_ = Stage::WRITTEN;
  return appender_.appendArea(blockCount);
}

// After a restart each reader would roll forward over a commit whose slot was lost, until somebody writes: the slot of
// a large one is made durable at once.
std::uint32_t LogCommitter::checkpointIfDue(std::uint64_t commitSize) {
  const format::Slot& slot = log_.state.slot();
  if (slot.indexedEnd < slot.end || needsCheckpoint(slot.overlayCount)) return checkpoint();
  return commitSize > LARGE_COMMIT ? slots_.syncPublished() : MD_RC_OK;
}

// I3: all of this is published already, so that nothing is lost when it fails or stops half way.
std::uint32_t LogCommitter::checkpoint() {
  const format::Slot& slot = log_.state.slot();
  const bool isIndexed = slot.indexedEnd == slot.end;
  const std::vector<format::OverlayEntry> entries =
      isIndexed ? std::vector<format::OverlayEntry>(slot.overlay, slot.overlay + slot.overlayCount)
                : log_.state.unindexedHeads();
  if (const std::uint32_t rc = place(entries)) return rc;
  // Where a new mount cannot be told from the old one, an applied entry must be durable when the slot says so.
  if (!isIndexed || slots_.run().mount == 0) {
    if (const std::uint32_t rc = slots_.syncPublished()) return rc;
  }
  return isIndexed ? slots_.publishIndexed(entries, entries.size()) : slots_.publishIndexed({}, 0);
}

// How many entries the newest segment has is only known as well as the slots that counted them: when it turns out to be
// full, there is another one.
std::uint32_t LogCommitter::place(const std::vector<format::OverlayEntry>& entries) {
  for (;;) {
    const Answer<Placing> placing = placeEntries(log_, entries);
    if (placing.rc != MD_RC_OK || placing.value == Placing::COMPLETE) return placing.rc;
    if (const std::uint32_t rc = growIndex()) return rc;
  }
}

// A segment more, as a commit of its own. Without room for its number in the slot the heads wait to be indexed until
// the file is written anew.
std::uint32_t LogCommitter::growIndex() {
  const format::Slot before = log_.state.slot();
  const std::size_t segments = segmentCount(before);
  if (segments == format::MAX_SEGMENTS) return GENREG_RC_INTERNAL;
  std::uint32_t rc = appendArea(2 * unpackSegment(before.segments[segments - 1]).blockCount);
  if (rc == MD_RC_OK) rc = writeAll();
  if (rc == MD_RC_OK) rc = sync();
  if (rc == MD_RC_OK) {
    format::Slot& slot = log_.state.slot();
    if (before.indexedEnd == before.end) slot.indexedEnd = slot.end;
    rc = slots_.publish();
  }
  if (rc != MD_RC_OK) {
    // The commit before stays, and what follows may be tried again.
    static_cast<void>(rollBack());
    log_.state.slot() = before;
    log_.state.slot().overlayApplied = 0;
    log_.state.slot().sequence = slots_.published().sequence;
    log_.bytes.beginTail(before.end);
  }
  stage_ = Stage::PUBLISHED;
  return rc;
}

void LogCommitter::republish(std::uint64_t backupEnd) {
  log_.state.slot().backupEnd = backupEnd;
  static_cast<void>(slots_.publish());  // should this fail, the next writer looks at the backup once more
}

void LogCommitter::noteUpkeepBlocked(bool isBlocked) {
  std::uint32_t& flags = log_.state.slot().flags;
  flags = (flags & ~format::SLOT_UPKEEP_BLOCKED) | (isBlocked ? format::SLOT_UPKEEP_BLOCKED : 0);
  static_cast<void>(slots_.publish());  // should this fail, the next writer finds out once more
}

// Should the sync fail, the blocks that the slot takes for applied may be lost with it: it takes none for applied.
std::uint32_t LogCommitter::acknowledgeLosses() {
  log_.state.slot().acknowledgedLosses = log_.state.header().lossyRepairs;
  log_.state.slot().overlayApplied = 0;
  if (const std::uint32_t rc = slots_.publish()) return rc;
  return slots_.sync();
}

}  // namespace zon
