// See log_writer.h for the order of a commit.
#include "platform/registry/log/log_writer.h"

#include <algorithm>
#include <bit>

#include "platform/guarded.h"
#include "platform/registry/format/zero_runs.h"
#include "platform/registry/log/log_scan.h"

namespace zon {

namespace {

constexpr std::uint64_t INDEX_MASK = format::FRAME_ALIGNMENT - 1;
constexpr std::uint64_t PAGE = 4096;
constexpr std::uint64_t LEAST_RESERVE = 8192;
constexpr std::uint64_t MOST_RESERVE = 8 << 20;
// Inserts and changes leave so much behind the end, so that on a full disk records can still be removed: the removal of
// a record takes at most 96 bytes, whatever its keys.
constexpr std::uint64_t REMOVAL_ROOM = 8192;
constexpr std::uint64_t LEAST_BLOCKS = 8;
constexpr std::uint64_t MOST_ENTRY_BYTES = 48;  // of index for each live record and index; more counts as dead
// One more commit with this many new heads must fit the overlay, or the blocks take over.
constexpr std::size_t OVERLAY_HEADROOM = 8;
constexpr std::size_t WIPE_PIECE = 8192;
constexpr std::uint64_t LEAST_SEEN_BITS = 1024;
constexpr std::uint64_t MOST_SEEN_BITS = std::uint64_t{1} << 25;
constexpr std::size_t HEAVY_PENDING = 1 << 20;
constexpr std::size_t HEAVY_HEADS = 8192;
constexpr std::uint64_t LARGE_COMMIT = 256 * 1024;
// A chain is summarized when following it reads so many times more frames than it has live records.
constexpr std::uint32_t CHAIN_FACTOR = 2;
constexpr std::uint32_t CHAIN_SLACK = 32;
// Each removal leads past those below it, so that one or two steps go all the way; stopping earlier is no mistake.
constexpr int MOST_STEPS_BELOW = 16;

std::uint64_t roundUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }

std::uint64_t reserveStep(std::uint64_t size) { return std::clamp(size / 32, LEAST_RESERVE, MOST_RESERVE); }

bool isOutOfSpace(std::uint32_t rc) { return rc == GENREG_RC_NO_SPACE || rc == GENREG_RC_FILE_TOO_LARGE; }

std::uint64_t offsetOf(const format::OverlayEntry& entry) { return entry.offsetAndIndex & ~INDEX_MASK; }

}  // namespace

void SeenDigests::expect(std::uint64_t digests) {
  bits_.assign(static_cast<std::size_t>(std::clamp(std::bit_ceil(digests * 32), LEAST_SEEN_BITS, MOST_SEEN_BITS) / 64),
               0);
}

bool SeenDigests::note(std::uint64_t digest) {
  const std::uint64_t bit = digest % (bits_.size() * 64);
  const std::uint64_t mask = std::uint64_t{1} << bit % 64;
  const bool seen = (bits_[bit / 64] & mask) != 0;
  bits_[bit / 64] |= mask;
  return seen;
}

// All of the room is asked for at once: on a full disk nothing is to be read and written for nothing.
std::uint32_t LogWriter::create(int file, const format::FileHeader& header, const Expected& expected) {
  file_ = file;
  fresh_ = true;
  header_ = header;
  key_ = FrameKey{.salt = saltOf(header.fileId), .indexCount = type_.indexCount};
  slot_ = format::Slot{};
  slot_.chain = key_.salt;
  slot_.flags = format::SLOT_NAME_UNSYNCED;
  seen_.expect(expected.records);
  end_ = format::LOG_START;
  pendingStart_ = end_;
  const std::uint64_t entries = expected.records * type_.indexCount;
  const std::uint64_t blocks =
      std::clamp((entries + entries / 4) / (format::BLOCK_ENTRIES * 4 / 5), LEAST_BLOCKS, format::MAX_BLOCKS);
  if (const std::uint32_t rc = makeRoomForArea(blocks, expected.bytes)) return rc;
  if (const std::uint32_t rc = appendArea(blocks)) return rc;
  slot_.commits = 0;
  return MD_RC_OK;
}

std::uint32_t LogWriter::open(int file, std::uint64_t fileSize) {
  file_ = file;
  HeaderPage page;
  if (const std::uint32_t rc = readHeaderPage(file, page)) return rc;
  if (const std::uint32_t rc = takePage(page)) return rc;
  if (!page.isWhole || slot_.end > fileSize || slot_.sequence >= format::LAST_SEQUENCE) return GENREG_RC_DAMAGED;
  fileSize_ = fileSize;
  if (const std::uint32_t rc = restoreHeaders(page)) return rc;
  if (const std::uint32_t rc = takeUnindexed()) return rc;
  const Run run = compareRuns(run_, slot_);
  // What was applied to the blocks without a sync may be gone.
  if (run == Run::OTHER) slot_.overlayApplied = 0;
  published_ = slot_;
  newestIsDurable_ = !page.bothSlots();  // the slot that is no good is the one to write
  pendingStart_ = end_;
  bool clean = false;
  if (const std::uint32_t rc = tailIsClean(clean)) return rc;
  if (clean && page.bothSlots() && run != Run::OTHER) return MD_RC_OK;
  if (const std::uint32_t rc = requireAllowedSize(touchedSize())) return rc;
  if (page.bothSlots() && run == Run::SAME) return discardUnpublished();
  return takeInUnpublished(page.bothSlots() || run == Run::OTHER);
}

// A header that is lost, as with the slot in its sector when the power went while that was written, is written again
// before anything else is: the other sector may be the next to be lost. The syncs keep the two from being under way at
// once.
std::uint32_t LogWriter::restoreHeaders(const HeaderPage& page) {
  if (page.bothHeaders()) return MD_RC_OK;
  if (const std::uint32_t rc = requireAllowedSize(fileSize_)) return rc;
  if (const std::uint32_t rc = sync()) return rc;
  const std::uint64_t offset = page.headerValid[0] ? format::HEADER_COPY_OFFSET : 0;
  if (const std::uint32_t rc = writeAt(file_, offset, bytesOf(header_))) return rc;
  return sync();
}

// A commit of this run that no slot shows is of a writer that died, or whose sync failed: nobody has seen it, and
// nobody ever will.
std::uint32_t LogWriter::discardUnpublished() {
  if (const std::uint32_t rc = clearBehind()) return rc;
  slot_ = published_;
  return unmark();
}

// What another run left behind its newest slot was acknowledged, as far as anybody knows. The very same bytes are
// written again, as the kernel may take pages for clean whose sync had failed; what follows is wiped, as a power cut
// may have kept the second part of a commit without the first. All of it is synced, and published as of this run,
// before anything else is written. Should any of this fail, whatever counted is where it was.
std::uint32_t LogWriter::takeInUnpublished(bool mayBeTorn) {
  slot_.overlayApplied = 0;
  published_.overlayApplied = 0;
  pendingStart_ = format::MAX_OFFSET;  // all is read from the file
  const std::uint32_t rolled = rollForward();
  pendingStart_ = end_;
  if (rolled != MD_RC_OK) return rolled;
  if (!mayBeTorn) {
    // One slot is lost, and with it where the log ends.
    bool isZero = false;
    if (const std::uint32_t rc = isZeroFrom(end_, isZero)) return rc;
    if (!isZero) return GENREG_RC_DAMAGED;
  }
  if (const std::uint32_t rc = writeAgain(published_.end, end_)) return rc;
  if (const std::uint32_t rc = wipeFrom(end_)) return rc;
  if (const std::uint32_t rc = sync()) return rc;
  return publishCommitted();
}

std::uint32_t LogWriter::writeAgain(std::uint64_t from, std::uint64_t to) const {
  std::array<std::byte, WIPE_PIECE> piece;
  for (std::uint64_t at = from; at < to;) {
    std::size_t got = 0;
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), to - at));
    if (const std::uint32_t rc = readAt(file_, at, std::span(piece).first(wanted), got)) return rc;
    if (got < wanted) return GENREG_RC_DAMAGED;
    if (const std::uint32_t rc = writeAt(file_, at, std::span(piece).first(got))) return rc;
    at += got;
  }
  return MD_RC_OK;
}

std::uint32_t LogWriter::isZeroFrom(std::uint64_t offset, bool& isZero) const {
  std::array<std::byte, WIPE_PIECE> piece;
  isZero = true;
  for (std::uint64_t at = offset; isZero && (at = skipHole(file_, at, fileSize_)) < fileSize_;) {
    std::size_t got = 0;
    if (const std::uint32_t rc = readAt(file_, at, piece, got)) return rc;
    if (got == 0) break;
    isZero = std::all_of(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(got),
                         [](std::byte byte) { return byte == std::byte{0}; });
    at += got;
  }
  return MD_RC_OK;
}

std::uint32_t LogWriter::wipeFrom(std::uint64_t offset) const {
  std::array<std::byte, WIPE_PIECE> piece;
  constexpr std::array<std::byte, WIPE_PIECE> ZEROS{};
  for (std::uint64_t at = offset; (at = skipHole(file_, at, fileSize_)) < fileSize_;) {
    std::size_t got = 0;
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), fileSize_ - at));
    if (const std::uint32_t rc = readAt(file_, at, std::span(piece).first(wanted), got)) return rc;
    if (got == 0) break;
    if (!std::equal(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(got), ZEROS.begin())) {
      if (const std::uint32_t rc = writeAt(file_, at, std::span(ZEROS).first(got))) return rc;
    }
    at += got;
  }
  return MD_RC_OK;
}

std::uint32_t LogWriter::appendInsert(const void* record, std::size_t size) {
  Frame frame;
  frame.kind = format::FrameKind::INSERT;
  frame.place = end_;
  return appendEvent(frame, record, size, nullptr);
}

std::uint32_t LogWriter::sizesOf(const FoundRecord& found, Sizes& sizes) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = readHead(found.where.offset, bytes, frame)) return rc;
  sizes = Sizes{.record = found.size, .frame = frame.size};
  return MD_RC_OK;
}

std::uint32_t LogWriter::appendRemove(const FoundRecord& found, const void* old) {
  Sizes sizes;
  if (const std::uint32_t rc = sizesOf(found, sizes)) return rc;
  Frame frame;
  frame.kind = format::FrameKind::REMOVE;
  frame.place = found.where.place;
  return appendEvent(frame, old, 0, &sizes);
}

// A record whose keys change leaves its old chains by a removal and enters its new ones, at the same place.
std::uint32_t LogWriter::appendChange(const FoundRecord& found, const void* old, const void* record, std::size_t size) {
  bool sameChains = true;
  for (std::size_t index = 0; index < type_.indexCount; ++index) {
    sameChains = sameChains && digestOf(index, old) == digestOf(index, record);
  }
  Frame frame;
  frame.kind = format::FrameKind::CHANGE;
  frame.place = found.where.place;
  if (!sameChains) {
    if (const std::uint32_t rc = appendRemove(found, old)) return rc;
    return appendEvent(frame, record, size, nullptr);
  }
  Sizes sizes;
  if (const std::uint32_t rc = sizesOf(found, sizes)) return rc;
  return appendEvent(frame, record, size, &sizes);
}

std::uint32_t LogWriter::appendEvent(Frame& frame, const void* record, std::size_t size, const Sizes* old) {
  if (old != nullptr && !countsCover(*old)) return GENREG_RC_DAMAGED;
  frame.offset = end_;
  frame.chain = slot_.chain;
  const bool grows = frame.kind == format::FrameKind::INSERT || (frame.isRecord() && old == nullptr);
  const int liveChange = grows ? 1 : frame.kind == format::FrameKind::REMOVE ? -1 : 0;
  if (const std::uint32_t rc = extendChains(frame, record, liveChange)) return rc;
  payload_.clear();
  if (frame.isRecord()) {
    encodeZeroRuns(std::span(static_cast<const std::byte*>(record), size), payload_);
  } else {
    for (std::size_t index = 0; index < type_.indexCount; ++index) {
      const std::uint64_t digest = digestOf(index, record);
      const auto bytes = bytesOf(digest);
      payload_.insert(payload_.end(), bytes.begin(), bytes.end());
    }
  }
  appendFrame(frame, payload_, key_, pending_);
  takeEvent(frame, record, size, old);
  slot_.chain = frame.crc;
  end_ = frame.end();
  last_ = frame;
  building_ = true;
  removesOnly_ = removesOnly_ && frame.kind == format::FrameKind::REMOVE;
  return MD_RC_OK;
}

std::uint32_t LogWriter::extendChains(Frame& frame, const void* record, int liveChange) {
  const std::uint64_t keyDigest = digestOf(0, record);
  if (!fresh_ || seen_.note(keyDigest)) {
    if (const std::uint32_t rc = headOf(0, keyDigest, frame.previous)) return rc;  // I5
  }
  if (frame.kind != format::FrameKind::INSERT) {
    if (const std::uint32_t rc = findBelow(frame)) return rc;
  }
  for (std::size_t index = 1; index < type_.indexCount; ++index) {
    const std::uint64_t digest = digestOf(index, record);
    format::Link& link = frame.links[index - 1];
    if (const std::uint32_t rc = headOf(index, digest, link.previous)) return rc;
    if (link.previous != 0) {
      FrameBytes bytes;
      Frame head;
      if (const std::uint32_t rc = readHead(link.previous, bytes, head)) return rc;
      if (head.isEvent()) {
        link.events = head.links[index - 1].events;
        link.live = head.links[index - 1].live;
      } else {
        link.live = head.summary.count;
      }
    }
    ++link.events;
    if (liveChange > 0) ++link.live;
    if (liveChange < 0 && link.live > 0) --link.live;
    if (link.events / CHAIN_FACTOR > link.live + CHAIN_SLACK / CHAIN_FACTOR) {
      longChains_.push_back(ChainMark{.index = index, .digest = digest});
    }
  }
  return MD_RC_OK;
}

// Below a change or removal, who sees it needs no older form of its place, and no removed place that left nothing
// behind.
std::uint32_t LogWriter::findBelow(Frame& frame) const {
  frame.below = frame.previous;
  FrameBytes bytes;
  Frame head;
  if (frame.below == 0) return MD_RC_OK;
  if (const std::uint32_t rc = readHead(frame.below, bytes, head)) return rc;
  const bool isInsert = head.kind == format::FrameKind::INSERT;
  if (!head.isEvent() || head.place != frame.place || (!isInsert && !head.clean)) return MD_RC_OK;
  frame.clean = true;
  frame.below = isInsert ? head.previous : head.below;
  for (int step = 0; frame.below != 0 && step < MOST_STEPS_BELOW; ++step) {
    if (const std::uint32_t rc = readHead(frame.below, bytes, head)) return rc;
    if (head.kind != format::FrameKind::REMOVE || !head.clean) break;
    frame.below = head.below;
  }
  return MD_RC_OK;
}

std::uint32_t LogWriter::appendSummary(const ChainMark& mark) {
  std::uint64_t head = 0;
  if (const std::uint32_t rc = headOf(mark.index, mark.digest, head)) return rc;
  std::vector<LiveRecord> live;
  if (const std::uint32_t rc = gatherChain(mark.index, head, live)) return rc;
  // It only shortens later walks: on a full disk it is left out, before it takes the room of a removal.
  const std::uint64_t size = format::MAX_HEAD_SIZE + live.size() * sizeof(format::SummaryEntry);
  const std::uint32_t grown = growTo(end_ + size + format::TERMINATOR_SIZE + REMOVAL_ROOM);
  if (grown != MD_RC_OK) return isOutOfSpace(grown) ? MD_RC_OK : grown;
  static_assert(sizeof(LiveRecord) == sizeof(format::SummaryEntry));
  Frame frame;
  frame.kind = format::FrameKind::SUMMARY;
  frame.offset = end_;
  frame.chain = slot_.chain;
  frame.previous = head;
  frame.summary = format::SummaryBody{.digest = mark.digest,
                                      .index = static_cast<std::uint32_t>(mark.index),
                                      .count = static_cast<std::uint32_t>(live.size())};
  appendFrame(frame, std::as_bytes(std::span(live)), key_, pending_);
  takeHead(mark.index, mark.digest, frame.offset);
  slot_.chain = frame.crc;
  end_ = frame.end();
  last_ = frame;
  return MD_RC_OK;
}

std::uint32_t LogWriter::finishCommit() {
  if (!building_) return MD_RC_OK;
  std::sort(longChains_.begin(), longChains_.end(),
            [](const auto& a, const auto& b) { return a.index != b.index ? a.index < b.index : a.digest < b.digest; });
  const auto same = [](const auto& a, const auto& b) { return a.index == b.index && a.digest == b.digest; };
  longChains_.erase(std::unique(longChains_.begin(), longChains_.end(), same), longChains_.end());
  for (const ChainMark& mark : longChains_) {
    if (const std::uint32_t rc = appendSummary(mark)) return rc;
  }
  longChains_.clear();
  markLast(std::span(pending_).subspan(static_cast<std::size_t>(last_.offset - pendingStart_)), last_, key_);
  slot_.chain = last_.crc;
  ++slot_.commits;
  building_ = false;
  return MD_RC_OK;
}

std::uint64_t LogWriter::nextBlocksOffset() const {
  return roundUp(end_ + sizeof(format::FrameHeader) + sizeof(format::AreaBody), format::BLOCK_SIZE);
}

std::uint32_t LogWriter::makeRoomForArea(std::uint64_t blockCount, std::uint64_t bytesBehind) {
  return growTo(nextBlocksOffset() + blockCount * format::BLOCK_SIZE + bytesBehind + format::TERMINATOR_SIZE +
                REMOVAL_ROOM);
}

// The area is a commit of its own. Its blocks do not wait in memory: they are written at once, empty and sealed, so
// that what a crash makes of them is never taken for an empty block.
std::uint32_t LogWriter::appendArea(std::uint64_t blockCount) {
  blockCount = std::min(blockCount, format::MAX_BLOCKS);
  const std::size_t segments = segmentCount(slot_);
  if (segments == format::MAX_SEGMENTS) return GENREG_RC_INTERNAL;
  Frame frame;
  frame.kind = format::FrameKind::AREA;
  frame.offset = end_;
  frame.chain = slot_.chain;
  frame.last = true;
  frame.area.blocksOffset = nextBlocksOffset();
  frame.area.blockCount = blockCount;
  if (const std::uint32_t rc = makeRoomForArea(blockCount)) return rc;
  appendFrame(frame, {}, key_, pending_);
  pending_.resize(static_cast<std::size_t>(frame.area.blocksOffset - pendingStart_));
  const Segment segment{.offset = frame.area.blocksOffset, .blockCount = blockCount};
  hasWritten_ = true;
  if (const std::uint32_t rc = writeAt(file_, pendingStart_, pending_)) return rc;
  if (const std::uint32_t rc = writeEmptyBlocks(file_, key_.salt, segment)) return rc;
  pending_.clear();
  end_ = frame.end();
  pendingStart_ = end_;
  slot_.chain = frame.crc;
  slot_.segments[segments] = packSegment(segment);
  slot_.segmentEntries = 0;
  ++slot_.commits;
  return MD_RC_OK;
}

bool LogWriter::isHeavy() const { return pending_.size() > HEAVY_PENDING || newHeadCount() > HEAVY_HEADS; }

// Whatever is written without growing the file lies below this: slots, blocks, frames, and the mark and zeros that take
// a commit back.
std::uint64_t LogWriter::touchedSize() const { return std::max(fileSize_, published_.end + format::TERMINATOR_SIZE); }

std::uint32_t LogWriter::ensureFileSize(std::uint64_t size) {
  return growTo(removesOnly_ && !fresh_ ? size : size + REMOVAL_ROOM);
}

// With a step more than asked for, where there is room for it.
std::uint32_t LogWriter::growTo(std::uint64_t size) {
  if (size <= fileSize_) return MD_RC_OK;
  std::uint64_t target = roundUp(size + reserveStep(size), PAGE);
  std::uint32_t rc = reserve(file_, fileSize_, target);
  if (isOutOfSpace(rc)) {
    target = roundUp(size, PAGE);
    rc = reserve(file_, fileSize_, target);
  }
  if (rc == MD_RC_OK) fileSize_ = target;
  return rc;
}

// A commit that was broken off may have reserved far more than its successors need. Nothing that counts lies behind the
// end: what was there was wiped and synced before this commit was written, and readers never look there. Whether the
// cut, which is not synced, outlasts a crash makes no difference.
void LogWriter::cutReserve() {
  const std::uint64_t step = reserveStep(end_);
  const std::uint64_t kept = roundUp(end_ + format::TERMINATOR_SIZE + REMOVAL_ROOM + step, PAGE);
  if (fileSize_ <= kept + step) return;
  if (shrink(file_, kept) == MD_RC_OK) fileSize_ = kept;
}

bool LogWriter::isShortOfRoom() const { return fileSize_ < end_ + format::TERMINATOR_SIZE + REMOVAL_ROOM / 2; }

std::uint32_t LogWriter::flushPending() {
  if (const std::uint32_t rc = ensureFileSize(end_ + format::TERMINATOR_SIZE)) return rc;
  pending_.resize(pending_.size() + format::TERMINATOR_SIZE);
  hasWritten_ = true;
  const std::uint32_t rc = writeAt(file_, pendingStart_, pending_);
  if (rc != MD_RC_OK) return rc;
  pending_.clear();
  pendingStart_ = end_;
  return MD_RC_OK;
}

std::vector<format::OverlayEntry> LogWriter::mergedOverlay() const {
  std::vector<format::OverlayEntry> merged;
  // I4: what was applied before the last sync is durable in the blocks by now, and may leave the overlay.
  for (std::size_t entry = slot_.overlayApplied; entry < slot_.overlayCount; ++entry) {
    const std::size_t index = slot_.overlay[entry].offsetAndIndex & INDEX_MASK;
    if (!newHeads_[index].contains(slot_.overlay[entry].digest)) merged.push_back(slot_.overlay[entry]);
  }
  for (std::size_t index = 0; index < type_.indexCount; ++index) {
    for (const auto& [digest, offset] : newHeads_[index]) {
      merged.push_back(format::OverlayEntry{.digest = digest, .offsetAndIndex = offset | index});
    }
  }
  return merged;
}

bool LogWriter::needsApply(std::size_t entries) const { return entries + OVERLAY_HEADROOM > format::OVERLAY_CAPACITY; }

bool LogWriter::isIndexFull() const { return segmentCount(slot_) + 1 >= format::MAX_SEGMENTS; }

std::uint32_t LogWriter::makeRoomInIndex(std::size_t entries) {
  if (!needsApply(entries) || isIndexFull()) return MD_RC_OK;
  const std::size_t segments = segmentCount(slot_);
  std::uint64_t total = 0;
  for (std::size_t segment = 0; segment < segments; ++segment)
    total += unpackSegment(slot_.segments[segment]).blockCount;
  const std::uint64_t newest = segments == 0 ? 0 : unpackSegment(slot_.segments[segments - 1]).blockCount;
  if (slot_.segmentEntries + entries <= segmentCapacity(newest)) return MD_RC_OK;
  const std::uint64_t blocks = std::max({LEAST_BLOCKS, total, entries / (format::BLOCK_ENTRIES / 2)});
  // A removal adds no chains: there is an entry already for each of its heads, or room for the few that wait.
  if (removesOnly_ && isOutOfSpace(makeRoomForArea(blocks))) return MD_RC_OK;
  return appendArea(blocks);
}

namespace {

// The blocks that an application of entries touches, each read once and written once.
class BlockSet {
 public:
  BlockSet(int file, std::uint32_t salt) : file_(file), salt_(salt) {}

  std::uint32_t get(std::uint64_t offset, format::Block*& block) {
    const auto [at, isNew] = blocks_.try_emplace(offset);
    block = &at->second.block;
    if (!isNew) return MD_RC_OK;
    const std::uint32_t rc = readBlock(file_, salt_, offset, *block);
    if (rc != MD_RC_OK) blocks_.erase(at);
    return rc;
  }

  void markDirty(std::uint64_t offset) { blocks_[offset].dirty = true; }

  std::uint32_t write() {
    std::vector<std::uint64_t> order;
    for (const auto& [offset, cached] : blocks_) {
      if (cached.dirty) order.push_back(offset);
    }
    std::sort(order.begin(), order.end());
    for (const std::uint64_t offset : order) {
      format::Block& block = blocks_[offset].block;
      sealBlock(block, salt_, offset);
      if (const std::uint32_t rc = writeAt(file_, offset, bytesOf(block))) return rc;
    }
    blocks_.clear();
    return MD_RC_OK;
  }

  std::size_t size() const { return blocks_.size(); }

 private:
  struct Cached {
    format::Block block;
    bool dirty = false;
  };
  int file_;
  std::uint32_t salt_;
  std::unordered_map<std::uint64_t, Cached> blocks_;
};

constexpr std::size_t MOST_CACHED_BLOCKS = 4096;

// Finds the entry of the chain that `entry` continues, or room for a new one in the newest segment.
class EntryPlacer {
 public:
  EntryPlacer(const LogView& view, BlockSet& blocks) : view_(view), blocks_(blocks), allowance_(view) {}

  // `isFull`: there is no room for it in the newest segment.
  std::uint32_t place(const format::OverlayEntry& entry, bool& isNew, bool& isFull) {
    const std::size_t segments = segmentCount(view_.slot());
    isNew = false;
    // A chain that starts with this frame has no entry in the older segments; in the newest one it may have, by a
    // writer that died.
    std::size_t oldest = 0;
    if (segments > 1) {
      bool isFirst = false;
      const std::size_t index = entry.offsetAndIndex & INDEX_MASK;
      if (const std::uint32_t rc = view_.startsChain(index, offsetOf(entry), isFirst)) return rc;
      if (isFirst) oldest = segments - 1;
    }
    for (std::size_t segment = segments; segment-- > oldest;) {
      bool done = false;
      if (const std::uint32_t rc = replaceIn(unpackSegment(view_.slot().segments[segment]), entry, done)) return rc;
      if (done) return MD_RC_OK;
    }
    isNew = true;
    return addTo(unpackSegment(view_.slot().segments[segments - 1]), entry, isFull);
  }

 private:
  struct Candidate {
    std::uint64_t older;
    std::uint64_t block;
    std::size_t slot;
  };

  // Entries that may be an older head of the chain, the newest first.
  std::uint32_t findCandidates(const Segment& segment, const format::OverlayEntry& entry,
                               std::vector<Candidate>& candidates) {
    std::uint64_t at = homeBlock(entry.digest, segment.blockCount);
    for (std::uint64_t probe = 0; probe < std::min(MOST_PROBES, segment.blockCount); ++probe) {
      const std::uint64_t offset = segment.offset + at * format::BLOCK_SIZE;
      format::Block* block = nullptr;
      if (const std::uint32_t rc = blocks_.get(offset, block)) return rc;
      for (std::size_t slot = 0; slot < block->count; ++slot) {
        if (!mayBeOf(block->entries[slot], entry.offsetAndIndex & INDEX_MASK, entry.digest)) continue;
        candidates.push_back(Candidate{.older = entryOffset(block->entries[slot]), .block = offset, .slot = slot});
      }
      if (block->overflowed == 0) break;
      at = at + 1 == segment.blockCount ? 0 : at + 1;
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.older > b.older; });
    return MD_RC_OK;
  }

  // An older head of the same chain is replaced; an entry that only shares the tag stays.
  std::uint32_t replaceIn(const Segment& segment, const format::OverlayEntry& entry, bool& done) {
    std::vector<Candidate> candidates;
    if (const std::uint32_t rc = findCandidates(segment, entry, candidates)) return rc;
    std::vector<std::uint64_t> targets;
    targets.reserve(candidates.size());
    for (const Candidate& candidate : candidates) targets.push_back(candidate.older);
    const std::size_t index = entry.offsetAndIndex & INDEX_MASK;
    std::uint64_t reached = 0;
    if (const std::uint32_t rc = view_.chainReaches(index, offsetOf(entry), targets, allowance_, reached)) return rc;
    for (const Candidate& candidate : candidates) {
      if (done || reached == 0 || candidate.older != reached) continue;
      format::Block* block = nullptr;
      if (const std::uint32_t rc = blocks_.get(candidate.block, block)) return rc;
      block->entries[candidate.slot] = makeEntry(index, entry.digest, offsetOf(entry));
      if (const std::uint32_t failed = markWayTo(segment, entry.digest, candidate.block)) return failed;
      done = true;
    }
    return MD_RC_OK;
  }

  // All blocks that a search passes, whose marks lead on, are written also when nothing changes: those that a failed
  // sync dropped are made dirty again by this.
  std::uint32_t markWayTo(const Segment& segment, std::uint64_t digest, std::uint64_t block) {
    for (std::uint64_t at = homeBlock(digest, segment.blockCount);;) {
      const std::uint64_t offset = segment.offset + at * format::BLOCK_SIZE;
      format::Block* passed = nullptr;
      if (const std::uint32_t rc = blocks_.get(offset, passed)) return rc;
      blocks_.markDirty(offset);
      if (offset == block) return MD_RC_OK;
      at = at + 1 == segment.blockCount ? 0 : at + 1;
    }
  }

  std::uint32_t addTo(const Segment& segment, const format::OverlayEntry& entry, bool& isFull) {
    std::uint64_t at = homeBlock(entry.digest, segment.blockCount);
    for (std::uint64_t probe = 0; probe < std::min(MOST_PROBES, segment.blockCount); ++probe) {
      const std::uint64_t offset = segment.offset + at * format::BLOCK_SIZE;
      format::Block* block = nullptr;
      if (const std::uint32_t rc = blocks_.get(offset, block)) return rc;
      blocks_.markDirty(offset);
      if (block->count < format::BLOCK_ENTRIES) {
        block->entries[block->count++] = makeEntry(entry.offsetAndIndex & INDEX_MASK, entry.digest, offsetOf(entry));
        return MD_RC_OK;
      }
      block->overflowed = 1;
      at = at + 1 == segment.blockCount ? 0 : at + 1;
    }
    isFull = true;
    return MD_RC_OK;
  }

  const LogView& view_;
  BlockSet& blocks_;
  ReadAllowance allowance_;
};

}  // namespace

// How many entries the newest segment has is only known as well as the slots that counted them: when it turns out to be
// full, there is another one.
std::uint32_t LogWriter::applyToBlocks(const std::vector<format::OverlayEntry>& entries) {
  for (;;) {
    bool isFull = false;
    if (const std::uint32_t rc = placeEntries(entries, isFull)) return rc;
    if (!isFull) return MD_RC_OK;
    if (const std::uint32_t rc = growIndex()) return rc;
  }
}

std::uint32_t LogWriter::placeEntries(std::vector<format::OverlayEntry> entries, bool& isFull) {
  const std::size_t segments = segmentCount(slot_);
  if (segments == 0) return GENREG_RC_DAMAGED;
  const std::uint64_t newest = unpackSegment(slot_.segments[segments - 1]).blockCount;
  std::sort(entries.begin(), entries.end(), [newest](const auto& a, const auto& b) {
    return homeBlock(a.digest, newest) < homeBlock(b.digest, newest);
  });
  BlockSet blocks(file_, key_.salt);
  EntryPlacer placer(*this, blocks);
  for (const format::OverlayEntry& entry : entries) {
    bool isNew = false;
    if (const std::uint32_t rc = placer.place(entry, isNew, isFull)) return rc;
    if (isFull) break;
    if (isNew) ++slot_.segmentEntries;
    if (blocks.size() > MOST_CACHED_BLOCKS) {
      if (const std::uint32_t rc = blocks.write()) return rc;
    }
  }
  return blocks.write();
}

// A segment more, as a commit of its own. Without room for its number in the slot the heads wait to be indexed until
// the file is written anew.
std::uint32_t LogWriter::growIndex() {
  const std::size_t segments = segmentCount(slot_);
  if (segments == format::MAX_SEGMENTS) return GENREG_RC_INTERNAL;
  const std::uint64_t newest = unpackSegment(slot_.segments[segments - 1]).blockCount;
  if (fresh_) return appendArea(2 * newest);
  const format::Slot before = slot_;
  const bool isIndexed = slot_.indexedEnd == end_;
  hasWritten_ = false;
  std::uint32_t rc = appendArea(2 * newest);
  if (rc == MD_RC_OK) rc = flushPending();
  if (rc == MD_RC_OK) rc = sync();
  if (rc == MD_RC_OK) {
    newestIsDurable_ = true;
    if (isIndexed) slot_.indexedEnd = end_;
    rc = publishSlot();
  }
  if (rc == MD_RC_OK) return MD_RC_OK;
  takeBack();
  pending_.clear();
  slot_ = before;
  slot_.overlayApplied = 0;
  slot_.sequence = published_.sequence;
  end_ = published_.end;
  pendingStart_ = end_;
  return rc;
}

void LogWriter::setOverlay(const std::vector<format::OverlayEntry>& overlay, std::size_t applied) {
  std::copy(overlay.begin(), overlay.end(), slot_.overlay);
  slot_.overlayCount = static_cast<std::uint16_t>(overlay.size());
  slot_.overlayApplied = static_cast<std::uint16_t>(applied);
}

std::uint32_t LogWriter::writeSlot(format::Slot& slot) {
  // I7: slots take turns by sync: while the newest one may not be durable, it is the one to be written over, so that
  // the other one stays whole whatever a crash of the machine does.
  slot.sequence = published_.sequence + (newestIsDurable_ ? 1 : 2);
  std::copy(run_.boot.begin(), run_.boot.end(), slot.bootId);
  slot.mountId = run_.mount;
  sealSlot(slot, key_.salt);
  const auto bytes = bytesOf(slot).first(slotSize(slot));
  // After a failure the same one is to be written: the other one is all that may be durable.
  if (const std::uint32_t rc = writeAt(file_, format::SLOT_OFFSET[slot.sequence % 2], bytes)) return rc;
  newestIsDurable_ = false;
  return MD_RC_OK;
}

std::uint32_t LogWriter::publishSlot() {
  slot_.end = end_;
  if (const std::uint32_t rc = writeSlot(slot_)) return rc;
  published_ = slot_;
  removesOnly_ = true;
  return MD_RC_OK;
}

std::uint32_t LogWriter::publish(const std::vector<format::OverlayEntry>& overlay, std::size_t applied) {
  setOverlay(overlay, applied);
  slot_.indexedEnd = end_;
  if (const std::uint32_t rc = publishSlot()) return rc;
  forgetNewHeads();
  return MD_RC_OK;
}

// More heads than the slot can hold are published without an entry that leads to them: who opens the file walks the
// frames from indexedEnd on. The blocks take them over after that, so that a commit is never led to before it counts.
std::uint32_t LogWriter::publishCommitted() {
  const std::vector<format::OverlayEntry> overlay = mergedOverlay();
  return overlay.size() <= format::OVERLAY_CAPACITY ? publish(overlay, 0) : publishSlot();
}

// I3: all of this is published already, so that nothing is lost when it fails or stops half way.
std::uint32_t LogWriter::applyPublished() {
  const bool isIndexed = slot_.indexedEnd == end_;
  const std::vector<format::OverlayEntry> entries =
      isIndexed ? std::vector<format::OverlayEntry>(slot_.overlay, slot_.overlay + slot_.overlayCount)
                : mergedOverlay();
  if (const std::uint32_t rc = applyToBlocks(entries)) return rc;
  // Where a new mount cannot be told from the old one, an applied entry must be durable when the slot says so.
  if (!isIndexed || run_.mount == 0) {
    if (const std::uint32_t rc = syncPublished()) return rc;
  }
  return isIndexed ? publish(entries, entries.size()) : publish({}, 0);
}

// A sync that takes nothing back when it fails. The kernel may then have dropped the slot's page and the blocks' though
// they are no longer to be written: the slot is written once more, and what was applied counts as not applied.
std::uint32_t LogWriter::syncPublished() {
  const std::uint32_t rc = sync();
  if (rc == MD_RC_OK) {
    newestIsDurable_ = true;
    return MD_RC_OK;
  }
  slot_.overlayApplied = 0;
  publishSlot();
  return rc;
}

void LogWriter::noteUpkeepBlocked(bool isBlocked) {
  slot_.flags = (slot_.flags & ~format::SLOT_UPKEEP_BLOCKED) | (isBlocked ? format::SLOT_UPKEEP_BLOCKED : 0);
  publishSlot();  // should this fail, the next writer finds out once more
}

void LogWriter::republish(std::uint64_t backupEnd) {
  slot_.backupEnd = backupEnd;
  publishSlot();  // should this fail, the next writer looks at the backup once more
}

// Should the sync fail, the blocks that the slot takes for applied may be lost with it: it takes none for applied.
std::uint32_t LogWriter::acknowledgeLosses() {
  slot_.acknowledgedLosses = header_.lossyRepairs;
  slot_.overlayApplied = 0;
  if (const std::uint32_t rc = publishSlot()) return rc;
  return sync();
}

std::size_t LogWriter::mergedOverlaySize() const { return mergedOverlay().size(); }

std::uint32_t LogWriter::commit() {
  if (!isDirty()) return MD_RC_OK;
  // Before the first byte is written: what would have to be taken back could not be written either.
  if (const std::uint32_t rc = requireAllowedSize(touchedSize())) return rc;
  const std::uint64_t start = published_.end;
  hasWritten_ = false;
  const std::uint32_t rc = guarded([this] { return commitAppended(); });
  if (rc != MD_RC_OK) return takeBack() ? rc : GENREG_RC_DURABILITY_UNKNOWN;
  // What fails here is tried again by a later commit.
  isIndexDamaged_ = guarded([&] { return settlePublished(end_ - start); }) == GENREG_RC_DAMAGED;
  cutReserve();
  return MD_RC_OK;
}

std::uint32_t LogWriter::commitAppended() {
  if (const std::uint32_t rc = makeRoomInIndex(mergedOverlaySize())) return rc;
  if (const std::uint32_t rc = flushPending()) return rc;
  if (const std::uint32_t rc = sync()) return rc;
  newestIsDurable_ = true;
  return publishCommitted();
}

// After a restart each reader would read a commit whose slot was lost, until somebody writes: the slot of a large one
// is made durable at once.
std::uint32_t LogWriter::settlePublished(std::uint64_t commitSize) {
  if (slot_.indexedEnd < end_ || needsApply(slot_.overlayCount)) return applyPublished();
  return commitSize > LARGE_COMMIT ? syncPublished() : MD_RC_OK;
}

// Whether the commit will be found after a crash, nobody knows when this fails. Only what this writer appended itself
// is touched.
bool LogWriter::takeBack() {
  if (fresh_ || !hasWritten_) return true;
  if (clearBehind() != MD_RC_OK) return false;
  unmark();  // the mark does no harm
  return true;
}

// I6: nothing behind the published end may be found later. First a mark that is no commit goes to the end: should the
// rest fail, the next writer sees that something is to be cleared. After a failed sync the slot is written again, as
// its page and the blocks that it takes for applied may never have reached the disk. What is cleared may have reached
// it: so must the mark.
std::uint32_t LogWriter::clearBehind() {
  std::array<std::byte, format::TERMINATOR_SIZE> mark;
  mark.fill(std::byte{0xFF});
  if (const std::uint32_t rc = writeAt(file_, published_.end, mark)) return rc;
  format::Slot slot = published_;
  slot.overlayApplied = 0;
  if (const std::uint32_t rc = writeSlot(slot)) return rc;
  published_ = slot;
  if (const std::uint32_t rc = wipeFrom(published_.end + mark.size())) return rc;
  return sync();
}

std::uint32_t LogWriter::unmark() const {
  constexpr std::array<std::byte, format::TERMINATOR_SIZE> ZEROS{};
  return writeAt(file_, published_.end, ZEROS);
}

std::uint32_t LogWriter::spill() {
  if (const std::uint32_t rc = flushPending()) return rc;
  if (!fresh_ || newHeadCount() <= HEAVY_HEADS) return MD_RC_OK;
  if (const std::uint32_t rc = applyToBlocks(mergedOverlay())) return rc;
  forgetNewHeads();
  return MD_RC_OK;
}

std::uint32_t LogWriter::finish() {
  if (const std::uint32_t rc = flushPending()) return rc;
  if (const std::uint32_t rc = applyToBlocks(mergedOverlay())) return rc;
  forgetNewHeads();
  if (const std::uint32_t rc = writeAt(file_, 0, bytesOf(header_))) return rc;
  if (const std::uint32_t rc = writeAt(file_, format::HEADER_COPY_OFFSET, bytesOf(header_))) return rc;
  // Both slots are there from the start: a slot that fails its checksum is damage or a write under way.
  for (int slot = 0; slot < 2; ++slot) {
    newestIsDurable_ = true;
    if (const std::uint32_t rc = publish({}, 0)) return rc;
  }
  if (const std::uint32_t rc = syncFile(file_)) return rc;
  fresh_ = false;
  return MD_RC_OK;
}

std::uint64_t LogWriter::areaBytes() const {
  std::uint64_t bytes = 0;
  for (std::size_t segment = 0; segment < segmentCount(slot_); ++segment) {
    bytes += unpackSegment(slot_.segments[segment]).blockCount * format::BLOCK_SIZE;
  }
  return bytes;
}

std::uint64_t LogWriter::deadBytes() const {
  const std::uint64_t used = end_ - format::LOG_START;
  // Segments that were lost count with slots leave more room in the index than the records need.
  const std::uint64_t entries = slot_.records * type_.indexCount;
  const std::uint64_t useful = 4 * LEAST_BLOCKS * format::BLOCK_SIZE + entries * MOST_ENTRY_BYTES;
  const std::uint64_t live = slot_.liveFrameBytes + std::min(areaBytes(), useful);
  return used > live ? used - live : 0;
}

}  // namespace zon
