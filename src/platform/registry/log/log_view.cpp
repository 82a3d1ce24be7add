// See log_view.h. Every loop over frames goes down in offset or up to a known end, so that no file can make it endless.
#include "platform/registry/log/log_view.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "platform/registry/format/crc32c.h"
#include "platform/registry/format/scratch_record.h"
#include "platform/registry/format/zero_runs.h"

namespace zon {

namespace {

constexpr std::size_t PIECE_SIZE = 16384;
constexpr int MOST_PAGE_READS = 4;  // a slot is written in a moment
constexpr int MOST_OPENINGS = 100;
constexpr std::uint64_t INDEX_MASK = format::FRAME_ALIGNMENT - 1;

bool isAllZero(std::span<const std::byte> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::byte byte) { return byte == std::byte{0}; });
}

// The older form of a record is the first or second frame below it in its chain, unless whole keys come more than once.
constexpr std::uint64_t READS_LOOKING_BACK = 2;

constexpr std::uint64_t REMOVED_MARK = 1;
static_assert(REMOVED_MARK < format::FRAME_ALIGNMENT);

bool isFrameOffset(std::uint64_t offset, std::uint64_t end) {
  return offset >= format::LOG_START && offset < end && offset % format::FRAME_ALIGNMENT == 0;
}

}  // namespace

ReadAllowance::ReadAllowance(const LogView& view, std::uint64_t readsOfAFrame)
    : view_(view), readsOfAFrame_(readsOfAFrame), left_(view.end() * readsOfAFrame) {}

std::uint32_t ReadAllowance::charge(const Frame& frame) {
  if (frame.size > left_ && !isRaised_) {
    // What writers appended since this view was opened counts as well.
    FileState state;
    if (const std::uint32_t rc = stateOf(view_.file(), state)) return rc;
    isRaised_ = true;
    left_ += state.size * readsOfAFrame_;
  }
  if (frame.size > left_) return GENREG_RC_DAMAGED;
  left_ -= frame.size;
  return MD_RC_OK;
}

std::uint32_t LogView::takePage(const HeaderPage& page) {
  header_ = page.header;
  key_.salt = saltOf(header_.fileId);
  key_.indexCount = type_.indexCount;
  if (!isHeaderOf(header_, type_)) return GENREG_RC_WRONG_RECORD_TYPE;
  // A slot that fails its checksum is being written, or was when the machine stopped; one that stays so is damage.
  if (!page.hasSlot()) return GENREG_RC_DAMAGED;
  slot_ = page.slots[page.newest()];
  end_ = slot_.end;
  return MD_RC_OK;
}

std::uint32_t LogView::open(int file) {
  file_ = file;
  for (int round = 0; round < MOST_OPENINGS; ++round) {
    bool isSettled = false;
    if (const std::uint32_t rc = openOnce(isSettled)) return rc;
    if (isSettled) return MD_RC_OK;
  }
  return GENREG_RC_LOCK_TIMEOUT;
}

// What lies behind the newest slot's end is a commit under way, or the remains of one, or acknowledged and its slot
// lost. In the run that wrote the slot it is not the last.
std::uint32_t LogView::openOnce(bool& isSettled) {
  HeaderPage page;
  for (int round = 0;; ++round) {
    if (const std::uint32_t rc = readHeaderPage(file_, page)) return rc;
    if (page.bothSlots() || round == MOST_PAGE_READS) break;
  }
  forgetNewHeads();
  if (const std::uint32_t rc = takePage(page)) return rc;
  if (const std::uint32_t rc = takeUnindexed()) return rc;
  bool clean = false;
  if (const std::uint32_t rc = tailIsClean(clean)) return rc;
  isSettled = clean && page.bothSlots();
  if (isSettled) return MD_RC_OK;
  RunId run;
  if (const std::uint32_t rc = currentRun(file_, run)) return rc;
  const bool isOther = compareRuns(run, slot_) == Run::OTHER;
  isSettled = page.bothSlots() && !isOther;
  return isSettled ? MD_RC_OK : takeIn(isOther, isSettled);
}

// Visible means durable: what is taken in is synced before anybody sees it. The first writer after a restart publishes
// what it took in before it writes anything of its own, so that what was just taken in is not of a writer at work when
// the newest slot is still the same.
std::uint32_t LogView::takeIn(bool isOtherRun, bool& isSettled) {
  const std::uint64_t sequence = slot_.sequence;
  const std::uint64_t published = end_;
  if (const std::uint32_t rc = rollForward()) return rc;
  if (!isOtherRun) {
    // One slot is lost, and with it where the log ends.
    bool clean = false;
    if (const std::uint32_t rc = tailIsClean(clean)) return rc;
    if (!clean) return GENREG_RC_DAMAGED;
  }
  if (end_ != published) {
    if (const std::uint32_t rc = makeReadBytesDurable(file_)) return rc;
  }
  HeaderPage now;
  if (const std::uint32_t rc = readHeaderPage(file_, now)) return rc;
  if (!now.hasSlot()) return GENREG_RC_DAMAGED;
  const format::Slot& newest = now.slots[now.newest()];
  isSettled = newest.sequence == sequence || (newest.end == end_ && newest.chain == slot_.chain);
  return MD_RC_OK;
}

std::uint32_t LogView::takeUnindexed() {
  std::vector<std::byte> record;
  for (std::uint64_t offset = slot_.indexedEnd; offset < end_;) {
    FrameBytes bytes;
    Frame frame;
    if (const std::uint32_t rc = readHead(offset, bytes, frame)) return rc;
    record.resize(type_.maxSize);
    if (const std::uint32_t rc = takeHeads(frame, bytes, record)) return rc;
    offset = frame.end();
  }
  return MD_RC_OK;
}

std::uint32_t LogView::takeHeads(const Frame& frame, const FrameBytes& bytes, std::vector<std::byte>& record) {
  if (frame.kind == format::FrameKind::SUMMARY) takeHead(frame.summary.index, frame.summary.digest, frame.offset);
  if (!frame.isEvent()) return MD_RC_OK;
  RemovedDigests digests{};
  std::size_t size = 0;
  const std::uint32_t rc = frame.isRecord() ? readRecord(frame, bytes.all(), record.data(), size)
                                            : readRemovedDigests(frame, bytes.all(), digests);
  if (rc != MD_RC_OK) return rc;
  for (std::size_t index = 0; index < type_.indexCount; ++index) {
    takeHead(index, frame.isRecord() ? digestOf(index, record.data()) : digests[index], frame.offset);
  }
  return MD_RC_OK;
}

void LogView::forgetNewHeads() {
  for (auto& heads : newHeads_) heads.clear();
}

std::uint32_t LogView::tailIsClean(bool& clean) const {
  std::array<std::byte, format::TERMINATOR_SIZE> tail;
  std::size_t got = 0;
  if (const std::uint32_t rc = readAt(file_, end_, tail, got)) return rc;
  if (got == 0) {
    // Nothing behind the end; what is before it must be there.
    if (const std::uint32_t rc = readAt(file_, end_ - 1, std::span(tail).first(1), got)) return rc;
    if (got == 0) return GENREG_RC_DAMAGED;
    got = 0;
  }
  clean = isAllZero(std::span(tail).first(got));
  return MD_RC_OK;
}

std::uint32_t LogView::read(std::uint64_t offset, std::span<std::byte> range, std::size_t& got) const {
  got = 0;
  if (offset < pendingStart_) {
    const auto inFile = static_cast<std::size_t>(std::min<std::uint64_t>(range.size(), pendingStart_ - offset));
    const std::uint32_t rc = badSectors_ == nullptr ? readAt(file_, offset, range.first(inFile), got)
                                                    : badSectors_->read(file_, offset, range.first(inFile), got);
    if (rc != MD_RC_OK) return rc;
    if (got < inFile) return MD_RC_OK;
  }
  if (got == range.size()) return MD_RC_OK;
  const std::uint64_t at = offset + got - pendingStart_;
  if (at >= pending_.size()) return MD_RC_OK;
  const std::size_t count = std::min(range.size() - got, pending_.size() - static_cast<std::size_t>(at));
  std::memcpy(range.data() + got, pending_.data() + at, count);
  got += count;
  return MD_RC_OK;
}

std::uint32_t LogView::readHead(std::uint64_t offset, FrameBytes& bytes, Frame& frame) const {
  if (const std::uint32_t rc = read(offset, bytes.bytes, bytes.got)) return rc;
  return parseHead(bytes.all(), offset, key_, frame) == ParseResult::OK ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogView::readRecord(const Frame& frame, std::span<const std::byte> first, std::byte* out,
                                  std::size_t& size) const {
  if (!frame.isRecord()) return GENREG_RC_DAMAGED;
  ZeroRunDecoder decoder(std::span(out, type_.maxSize), RECORD_ROOM);
  std::span<const std::byte> payload = first.subspan(frame.headSize);
  payload = payload.first(std::min<std::size_t>(payload.size(), frame.payloadSize()));
  const auto takes = [&decoder](std::span<const std::byte> bytes) {
    return decoder.feed(bytes) && decoder.padding() < format::FRAME_ALIGNMENT;
  };
  if (!takes(payload)) return GENREG_RC_DAMAGED;
  std::uint32_t crc = crc32c(0, payload.data(), payload.size());
  std::uint64_t at = frame.offset + frame.headSize + payload.size();
  if (at < frame.end()) {
    std::array<std::byte, PIECE_SIZE> piece;
    while (at < frame.end()) {
      const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), frame.end() - at));
      std::size_t got = 0;
      if (const std::uint32_t rc = read(at, std::span(piece).first(count), got)) return rc;
      if (got < count || !takes(std::span(piece).first(count))) return GENREG_RC_DAMAGED;
      crc = crc32c(crc, piece.data(), count);
      at += count;
    }
  }
  size = decoder.size();
  if (!decoder.finished() || crc != frame.payloadCrc) return GENREG_RC_DAMAGED;
  return type_.sizeOf(out) == size ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogView::readRecord(std::uint64_t offset, std::byte* out, std::size_t& size) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = readHead(offset, bytes, frame)) return rc;
  return readRecord(frame, bytes.all(), out, size);
}

std::uint32_t LogView::readLive(const LiveRecord& record, ReadAllowance& allowance, std::byte* out,
                                std::size_t& size) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = readHead(record.offset, bytes, frame)) return rc;
  if (!frame.isRecord() || frame.place != record.place) return GENREG_RC_DAMAGED;
  if (const std::uint32_t rc = allowance.charge(frame)) return rc;
  return readRecord(frame, bytes.all(), out, size);
}

std::uint32_t LogView::verifyPayload(const Frame& frame, std::span<const std::byte> first) const {
  if (frame.kind == format::FrameKind::AREA) return verifyBlocks(frame.area);
  std::span<const std::byte> payload = first.subspan(frame.headSize);
  payload = payload.first(std::min<std::size_t>(payload.size(), frame.payloadSize()));
  std::uint32_t crc = crc32c(0, payload.data(), payload.size());
  std::array<std::byte, PIECE_SIZE> piece;
  for (std::uint64_t at = frame.offset + frame.headSize + payload.size(); at < frame.end();) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), frame.end() - at));
    std::size_t got = 0;
    if (const std::uint32_t rc = read(at, std::span(piece).first(count), got)) return rc;
    if (got < count) return GENREG_RC_DAMAGED;
    crc = crc32c(crc, piece.data(), count);
    at += count;
  }
  return crc == frame.payloadCrc ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogView::verifyBlocks(const format::AreaBody& area) const {
  for (std::uint64_t at = 0; at < area.blockCount; ++at) {
    format::Block block;
    if (const std::uint32_t rc = readBlock(file_, key_.salt, area.blocksOffset + at * format::BLOCK_SIZE, block))
      return rc;
  }
  return MD_RC_OK;
}

bool LogView::findNewHead(std::size_t index, std::uint64_t digest, std::uint64_t& head) const {
  const auto found = newHeads_[index].empty() ? newHeads_[index].end() : newHeads_[index].find(digest);
  if (found != newHeads_[index].end()) {
    head = found->second;
    return true;
  }
  for (std::size_t entry = slot_.overlayCount; entry-- > 0;) {
    const format::OverlayEntry& candidate = slot_.overlay[entry];
    if (candidate.digest == digest && (candidate.offsetAndIndex & INDEX_MASK) == index) {
      head = candidate.offsetAndIndex & ~INDEX_MASK;
      return true;
    }
  }
  return false;
}

std::size_t LogView::newHeadCount() const {
  std::size_t count = 0;
  for (const auto& heads : newHeads_) count += heads.size();
  return count;
}

std::uint32_t LogView::hasDigest(std::uint64_t offset, std::size_t index, std::uint64_t digest,
                                 ReadAllowance& allowance, bool& result) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = readHead(offset, bytes, frame)) return rc;
  if (const std::uint32_t rc = allowance.charge(frame)) return rc;
  result = false;
  if (frame.kind == format::FrameKind::SUMMARY) {
    result = frame.summary.index == index && frame.summary.digest == digest;
  } else if (frame.kind == format::FrameKind::REMOVE) {
    RemovedDigests digests;
    if (const std::uint32_t rc = readRemovedDigests(frame, bytes.all(), digests)) return rc;
    result = digests[index] == digest;
  } else if (frame.isRecord()) {
    const ScratchRecord record(type_.maxSize);
    if (!record.isThere()) return GENREG_RC_NO_MEMORY;
    std::size_t size = 0;
    if (const std::uint32_t rc = readRecord(frame, bytes.all(), record.get(), size)) return rc;
    result = digestOf(index, record.get()) == digest;
  }
  return MD_RC_OK;
}

std::uint32_t LogView::readRemovedDigests(const Frame& frame, std::span<const std::byte> first,
                                          RemovedDigests& digests) const {
  const std::size_t size = type_.indexCount * sizeof(std::uint64_t);
  if (frame.payloadSize() != size || first.size() < frame.headSize + size) return GENREG_RC_DAMAGED;
  const std::span<const std::byte> payload = first.subspan(frame.headSize, size);
  if (crc32c(0, payload.data(), payload.size()) != frame.payloadCrc) return GENREG_RC_DAMAGED;
  std::memcpy(digests.data(), payload.data(), size);
  return MD_RC_OK;
}

std::uint32_t LogView::headOf(std::size_t index, std::uint64_t digest, std::uint64_t& head) const {
  if (findNewHead(index, digest, head)) return MD_RC_OK;
  if (index == 0 && foundHead_.has_value() && foundHead_->digest == digest) {
    head = foundHead_->offset;
    return MD_RC_OK;
  }
  head = 0;
  ReadAllowance allowance(*this);
  return visitEntries(file_, key_.salt, slot_, index, digest, [&](std::uint64_t candidate, Search& search) {
    bool isOurs = false;
    if (const std::uint32_t rc = hasDigest(candidate, index, digest, allowance, isOurs)) return rc;
    if (isOurs) {
      head = candidate;
      search = Search::DONE;
    }
    return MD_RC_OK;
  });
}

std::uint32_t LogView::findByWholeKey(unsigned long flags, const void* key, std::byte* out, LiveRecord& found,
                                      std::size_t& size) const {
  const std::uint64_t digest = digestOf(0, key);
  std::uint64_t head = 0;
  ReadAllowance allowance(*this);
  if (findNewHead(0, digest, head)) return followWholeKey(head, flags, key, allowance, out, found, size);
  std::uint32_t result = GENREG_RC_NOT_FOUND;
  bool hasCandidates = false;
  // The chain of another digest is followed in vain, and the search goes on.
  const std::uint32_t rc =
      visitEntries(file_, key_.salt, slot_, 0, digest, [&](std::uint64_t candidate, Search& search) {
        head = candidate;
        hasCandidates = true;
        result = followWholeKey(candidate, flags, key, allowance, out, found, size);
        if (result == GENREG_RC_NOT_FOUND) return MD_RC_OK;
        search = Search::DONE;
        return result;
      });
  if (rc != MD_RC_OK) return rc;
  const bool isOfDigest = result == MD_RC_OK && digestOf(0, out) == digest;
  if (isOfDigest || !hasCandidates) foundHead_ = FoundHead{.digest = digest, .offset = head};
  return result;
}

std::uint32_t LogView::readBelow(std::uint64_t offset, std::uint64_t above, FrameBytes& bytes, Frame& frame) const {
  if (const std::uint32_t rc = readHead(offset, bytes, frame)) return rc;
  return frame.end() <= above ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogView::followWholeKey(std::uint64_t offset, unsigned long flags, const void* key,
                                      ReadAllowance& allowance, std::byte* out, LiveRecord& found,
                                      std::size_t& size) const {
  std::set<std::uint64_t> seen;
  FrameBytes bytes;
  Frame frame;
  for (std::uint64_t above = format::MAX_OFFSET; offset != 0; above = frame.offset) {
    if (const std::uint32_t rc = readBelow(offset, above, bytes, frame)) return rc;
    if (const std::uint32_t rc = allowance.charge(frame)) return rc;
    if (offset >= end_ || !frame.isEvent()) {
      offset = frame.previous;
      continue;
    }
    const bool superseded = seen.contains(frame.place);
    if (frame.isRecord() && !superseded) {
      if (const std::uint32_t rc = readRecord(frame, bytes.all(), out, size)) return rc;
      if (type_.matches(flags, key, out)) {
        found = LiveRecord{.place = frame.place, .offset = offset};
        return MD_RC_OK;
      }
      wipe(out, size);
    }
    if (frame.kind == format::FrameKind::INSERT) {
      offset = frame.previous;
    } else {
      seen.insert(frame.place);
      offset = frame.below;
    }
  }
  return GENREG_RC_NOT_FOUND;
}

// Each entry is of another record, in the order of their places, and leads to a frame before the summary.
std::uint32_t LogView::readSummary(const Frame& frame, std::vector<LiveRecord>& events) const {
  static_assert(sizeof(LiveRecord) == sizeof(format::SummaryEntry) && PIECE_SIZE % sizeof(LiveRecord) == 0);
  std::array<LiveRecord, PIECE_SIZE / sizeof(LiveRecord)> piece;
  std::uint32_t crc = 0;
  std::uint64_t place = 0;
  for (std::uint64_t at = frame.offset + frame.headSize; at < frame.end();) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(sizeof piece, frame.end() - at));
    const std::span<std::byte> bytes = std::as_writable_bytes(std::span(piece)).first(wanted);
    std::size_t got = 0;
    if (const std::uint32_t rc = read(at, bytes, got)) return rc;
    if (got < wanted) return GENREG_RC_DAMAGED;
    crc = crc32c(crc, bytes.data(), wanted);
    for (const LiveRecord& entry : std::span(piece).first(wanted / sizeof(LiveRecord))) {
      const bool isPossible = entry.place > place && entry.place <= entry.offset &&
                              isFrameOffset(entry.place, frame.offset) && isFrameOffset(entry.offset, frame.offset);
      if (!isPossible) return GENREG_RC_DAMAGED;
      place = entry.place;
      events.push_back(entry);
    }
    at += wanted;
  }
  return crc == frame.payloadCrc ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogView::walkChain(std::size_t index, std::uint64_t head, std::vector<LiveRecord>& events) const {
  FrameBytes bytes;
  Frame frame;
  std::uint64_t above = format::MAX_OFFSET;
  for (std::uint64_t offset = head; offset != 0; offset = frame.previousIn(index)) {
    if (const std::uint32_t rc = readBelow(offset, above, bytes, frame)) return rc;
    above = offset;
    if (offset >= end_) continue;
    if (frame.isEvent()) {
      const std::uint64_t mark = frame.kind == format::FrameKind::REMOVE ? REMOVED_MARK : 0;
      events.push_back(LiveRecord{.place = frame.place, .offset = offset | mark});
    } else if (frame.kind == format::FrameKind::SUMMARY && frame.summary.index == index) {
      return readSummary(frame, events);
    }
  }
  return MD_RC_OK;
}

std::uint32_t LogView::gather(std::size_t index, std::uint64_t digest, std::vector<LiveRecord>& live) const {
  std::uint64_t head = 0;
  if (const std::uint32_t rc = headOf(index, digest, head)) return rc;
  return gatherChain(index, head, live);
}

// The answer is made where the events are: it takes no more memory than they do.
std::uint32_t LogView::gatherChain(std::size_t index, std::uint64_t head, std::vector<LiveRecord>& live) const {
  if (const std::uint32_t rc = walkChain(index, head, live)) return rc;
  std::sort(live.begin(), live.end(), [](const LiveRecord& a, const LiveRecord& b) {
    return a.place != b.place ? a.place < b.place : a.offset > b.offset;
  });
  const auto isOlderForm = [](const LiveRecord& newer, const LiveRecord& older) { return newer.place == older.place; };
  live.erase(std::unique(live.begin(), live.end(), isOlderForm), live.end());
  std::erase_if(live, [](const LiveRecord& event) { return (event.offset & REMOVED_MARK) != 0; });
  return MD_RC_OK;
}

std::uint32_t LogView::chainAt(std::uint64_t offset) const {
  if (offset == end_) return slot_.chain;
  FrameBytes bytes;
  Frame next;
  return readHead(offset, bytes, next) == MD_RC_OK ? next.chain : 0;
}

std::uint32_t LogView::startsChain(std::size_t index, std::uint64_t offset, bool& result) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = readHead(offset, bytes, frame)) return rc;
  result = frame.previousIn(index) == 0;
  return MD_RC_OK;
}

std::uint32_t LogView::chainReaches(std::size_t index, std::uint64_t from, std::span<const std::uint64_t> targets,
                                    ReadAllowance& allowance, std::uint64_t& reached) const {
  FrameBytes bytes;
  Frame frame;
  reached = 0;
  std::uint64_t above = format::MAX_OFFSET;
  while (!targets.empty() && from >= targets.back()) {
    while (targets.front() > from) targets = targets.subspan(1);
    if (targets.front() == from) {
      reached = from;
      return MD_RC_OK;
    }
    if (const std::uint32_t rc = readBelow(from, above, bytes, frame)) return rc;
    if (const std::uint32_t rc = allowance.charge(frame)) return rc;
    above = from;
    from = frame.previousIn(index);
  }
  return MD_RC_OK;
}

std::uint32_t LogView::readCommit(std::vector<Frame>& frames) const {
  frames.clear();
  FrameBytes bytes;
  std::uint32_t chain = slot_.chain;
  for (std::uint64_t offset = end_;;) {
    Frame frame;
    std::uint32_t rc = readHead(offset, bytes, frame);
    if (rc == MD_RC_OK && frame.chain != chain) rc = GENREG_RC_DAMAGED;
    if (rc == MD_RC_OK) rc = verifyPayload(frame, bytes.all());
    if (rc == GENREG_RC_DAMAGED) {
      frames.clear();
      return MD_RC_OK;
    }
    if (rc != MD_RC_OK) return rc;
    frames.push_back(frame);
    if (frame.last) return MD_RC_OK;
    chain = frame.crc;
    offset = frame.end();
  }
}

std::uint32_t LogView::rollForward() {
  std::vector<Frame> frames;
  for (;;) {
    if (const std::uint32_t rc = readCommit(frames)) return rc;
    if (frames.empty()) return MD_RC_OK;
    if (const std::uint32_t rc = takeCommit(frames)) return rc;
  }
}

std::uint32_t LogView::takeCommit(const std::vector<Frame>& frames) {
  std::vector<std::byte> record(type_.maxSize);
  for (const Frame& frame : frames) {
    if (const std::uint32_t rc = takeFrame(frame, record)) return rc;
  }
  ++slot_.commits;
  return MD_RC_OK;
}

std::uint32_t LogView::takeFrame(const Frame& frame, std::vector<std::byte>& record) {
  if (frame.kind == format::FrameKind::AREA) {
    const std::size_t segments = segmentCount(slot_);
    if (segments == format::MAX_SEGMENTS) return GENREG_RC_DAMAGED;
    slot_.segments[segments] =
        packSegment(Segment{.offset = frame.area.blocksOffset, .blockCount = frame.area.blockCount});
    slot_.segmentEntries = 0;
  } else if (frame.kind == format::FrameKind::SUMMARY) {
    takeHead(frame.summary.index, frame.summary.digest, frame.offset);
  } else {
    Sizes old;
    FrameBytes bytes;
    Frame older;
    bool replaces = false;
    std::size_t size = 0;
    if (frame.kind != format::FrameKind::INSERT) {
      if (const std::uint32_t rc = findOlder(frame, bytes, older, replaces)) return rc;
      if (replaces) {
        if (const std::uint32_t rc = readRecord(older, bytes.all(), record.data(), size)) return rc;
        old = Sizes{.record = size, .frame = older.size};
      } else if (frame.kind == format::FrameKind::REMOVE) {
        return GENREG_RC_DAMAGED;
      }
    }
    if (frame.isRecord()) {
      if (const std::uint32_t rc = readRecord(frame.offset, record.data(), size)) return rc;
      // The note that whole keys come more than once may be lost with the slot: assume it of a key that lives already.
      if (!replaces && frame.previous != 0) {
        if (const std::uint32_t rc = readHead(frame.previous, bytes, older)) return rc;
        if (older.isRecord()) slot_.flags |= format::SLOT_NOT_UNIQUE;
      }
    }
    if (replaces && !countsCover(old)) return GENREG_RC_DAMAGED;
    takeEvent(frame, record.data(), size, replaces ? &old : nullptr);
  }
  slot_.chain = frame.crc;
  end_ = frame.end();
  return MD_RC_OK;
}

bool LogView::countsCover(const Sizes& old) const {
  return slot_.records > 0 && slot_.recordBytes >= old.record && slot_.liveFrameBytes >= old.frame;
}

void LogView::takeEvent(const Frame& frame, const void* record, std::size_t recordSize, const Sizes* old) {
  for (std::size_t index = 0; index < type_.indexCount; ++index) takeHead(index, digestOf(index, record), frame.offset);
  if (old != nullptr) {
    --slot_.records;
    slot_.recordBytes -= old->record;
    slot_.liveFrameBytes -= old->frame;
  }
  if (frame.isRecord()) {
    ++slot_.records;
    slot_.recordBytes += recordSize;
    slot_.liveFrameBytes += frame.size;
  }
  if (frame.kind != format::FrameKind::INSERT && slot_.firstEvent == 0) slot_.firstEvent = frame.offset;
}

std::uint32_t LogView::findOlder(const Frame& event, FrameBytes& bytes, Frame& older, bool& found) const {
  found = false;
  if (!lookingBack_.has_value()) lookingBack_.emplace(*this, READS_LOOKING_BACK);
  for (std::uint64_t offset = event.previous; offset >= event.place && offset != 0; offset = older.previous) {
    if (const std::uint32_t rc = readHead(offset, bytes, older)) return rc;
    if (const std::uint32_t rc = lookingBack_->charge(older)) return rc;
    if (!older.isEvent() || older.place != event.place) continue;
    found = older.isRecord();
    return MD_RC_OK;
  }
  return MD_RC_OK;
}

}  // namespace zon
