// Events, summaries and areas.
//
// The rule: as log_appender.h says; a frame is taken into the state as the last step, once it is in the tail.
#include "platform/registry/log/log_appender.h"

#include <algorithm>

#include "platform/registry/files/file_io.h"
#include "platform/registry/format/zero_runs.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

namespace {

constexpr std::size_t HEAVY_TAIL = 1 << 20;
constexpr std::size_t HEAVY_HEADS = 8192;
// A list is summarized when following it reads so many times more frames than it has live records.
constexpr std::uint32_t LIST_FACTOR = 2;
constexpr std::uint32_t LIST_SLACK = 32;
// Each removal leads past those below it, so that one or two steps go all the way; stopping earlier is no mistake.
constexpr int MOST_STEPS_BELOW = 16;

}  // namespace

// I1: it goes behind all that is there, and never below a published end.
Frame LogAppender::newFrame(format::FrameKind kind, std::uint64_t place) const {
  Frame frame;
  frame.kind = kind;
  frame.offset = log_.state.end();
  frame.chain = log_.state.slot().chain;
  frame.place = place;
  return frame;
}

std::uint32_t LogAppender::appendInsert(const void* record, std::size_t size) {
  const Digests digests = log_.state.digestsOf(record);
  Frame frame = newFrame(format::FrameKind::INSERT, log_.state.end());
  return appendEvent(frame, Event{.digests = digests, .record = record, .size = size, .old = nullptr});
}

std::uint32_t LogAppender::sizesOf(const FoundRecord& found, RecordSizes& sizes) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = log_.bytes.readFrame(found.where.offset, bytes, frame)) return rc;
  sizes = RecordSizes{.record = found.size, .frame = frame.size};
  return MD_RC_OK;
}

std::uint32_t LogAppender::appendRemove(const FoundRecord& found, const void* old) {
  return appendRemoval(found, log_.state.digestsOf(old));
}

std::uint32_t LogAppender::appendRemoval(const FoundRecord& found, const Digests& digests) {
  RecordSizes sizes;
  if (const std::uint32_t rc = sizesOf(found, sizes)) return rc;
  Frame frame = newFrame(format::FrameKind::REMOVE, found.where.place);
  return appendEvent(frame, Event{.digests = digests, .record = nullptr, .size = 0, .old = &sizes});
}

// A record whose keys change leaves its old lists by a removal and enters its new ones, at the same place.
std::uint32_t LogAppender::appendChange(const FoundRecord& found, const void* old, const void* record,
                                        std::size_t size) {
  const Digests before = log_.state.digestsOf(old);
  const Digests digests = log_.state.digestsOf(record);
  RecordSizes sizes;
  const bool isInSameLists = before == digests;
  const std::uint32_t rc = isInSameLists ? sizesOf(found, sizes) : appendRemoval(found, before);
  if (rc != MD_RC_OK) return rc;
  Frame frame = newFrame(format::FrameKind::CHANGE, found.where.place);
  const RecordSizes* replaced = isInSameLists ? &sizes : nullptr;
  return appendEvent(frame, Event{.digests = digests, .record = record, .size = size, .old = replaced});
}

std::uint32_t LogAppender::appendEvent(Frame& frame, const Event& event) {
  if (event.old != nullptr && !log_.state.countsCover(*event.old)) return GENREG_RC_DAMAGED;
  const bool grows = frame.isRecord() && event.old == nullptr;
  const int liveChange = grows ? 1 : frame.kind == format::FrameKind::REMOVE ? -1 : 0;
  if (const std::uint32_t rc = extendLists(frame, event.digests, liveChange)) return rc;
  std::span<const std::byte> payload = std::as_bytes(std::span(event.digests).first(log_.bytes.type().indexCount));
  if (frame.isRecord()) {
    payload_.clear();
    encodeZeroRuns(std::span(static_cast<const std::byte*>(event.record), event.size), payload_);
    payload = payload_;
  }
  appendFrame(frame, payload, log_.bytes.key(), log_.bytes.tailUpTo(frame.offset));
  log_.state.takeEvent(frame, event.digests, event.size, event.old);
  last_ = frame;
  isBuilding_ = true;
  hasOnlyRemovals_ = hasOnlyRemovals_ && frame.kind == format::FrameKind::REMOVE;
  return MD_RC_OK;
}

// I5: the new frame is the head of each of its lists, and leads to the head before.
std::uint32_t LogAppender::extendLists(Frame& frame, const Digests& digests, int liveChange) {
  if (known_ == nullptr || known_->note(digests[0])) {
    const Answer<std::uint64_t> head = log_.view.lists().headOf(0, digests[0]);
    if (head.rc != MD_RC_OK) return head.rc;
    frame.previous = head.value;
  }
  if (frame.kind != format::FrameKind::INSERT) {
    if (const std::uint32_t rc = findBelow(frame)) return rc;
  }
  for (std::size_t index = 1; index < log_.bytes.type().indexCount; ++index) {
    if (const std::uint32_t rc = linkInto(index, digests[index], liveChange, frame.links[index - 1])) return rc;
  }
  return MD_RC_OK;
}

std::uint32_t LogAppender::linkInto(std::size_t index, std::uint64_t digest, int liveChange, format::Link& link) {
  const Answer<std::uint64_t> found = log_.view.lists().headOf(index, digest);
  if (found.rc != MD_RC_OK) return found.rc;
  link.previous = found.value;
  if (link.previous != 0) {
    FrameBytes bytes;
    Frame head;
    if (const std::uint32_t rc = log_.bytes.readFrame(link.previous, bytes, head)) return rc;
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
  if (link.events / LIST_FACTOR > link.live + LIST_SLACK / LIST_FACTOR) {
    longLists_.push_back(ListMark{.index = index, .digest = digest});
  }
  return MD_RC_OK;
}

// Below a change or removal, who sees it needs no older form of its place, and no removed place that left nothing
// behind.
std::uint32_t LogAppender::findBelow(Frame& frame) const {
  frame.below = frame.previous;
  FrameBytes bytes;
  Frame older;
  if (frame.below == 0) return MD_RC_OK;
  if (const std::uint32_t rc = log_.bytes.readFrame(frame.below, bytes, older)) return rc;
  const bool isInsert = older.kind == format::FrameKind::INSERT;
  if (!older.isEvent() || older.place != frame.place || (!isInsert && !older.clean)) return MD_RC_OK;
  frame.clean = true;
  frame.below = isInsert ? older.previous : older.below;
  for (int step = 0; frame.below != 0 && step < MOST_STEPS_BELOW; ++step) {
    if (const std::uint32_t rc = log_.bytes.readFrame(frame.below, bytes, older)) return rc;
    if (older.kind != format::FrameKind::REMOVE || !older.clean) break;
    frame.below = older.below;
  }
  return MD_RC_OK;
}

std::uint32_t LogAppender::appendSummary(const ListMark& mark) {
  const Answer<std::uint64_t> head = log_.view.lists().headOf(mark.index, mark.digest);
  if (head.rc != MD_RC_OK) return head.rc;
  std::vector<LiveRecord> live;
  if (const std::uint32_t rc = log_.view.lists().gatherFrom(mark.index, head.value, live)) return rc;
  // It only shortens later walks: on a full disk it is left out, before it takes the room of a removal.
  const std::uint64_t size = format::MAX_PREFIX_SIZE + live.size() * sizeof(format::SummaryEntry);
  const std::uint32_t grown = room_.growFor(log_.state.end() + size, REMOVAL_ROOM);
  if (grown != MD_RC_OK) return isOutOfSpace(grown) ? MD_RC_OK : grown;
  static_assert(sizeof(LiveRecord) == sizeof(format::SummaryEntry));
  Frame frame = newFrame(format::FrameKind::SUMMARY, 0);
  frame.previous = head.value;
  frame.summary = format::SummaryBody{.digest = mark.digest,
                                      .index = static_cast<std::uint32_t>(mark.index),
                                      .count = static_cast<std::uint32_t>(live.size())};
  appendFrame(frame, std::as_bytes(std::span(live)), log_.bytes.key(), log_.bytes.tailUpTo(frame.offset));
  log_.state.takeSummary(frame);
  last_ = frame;
  return MD_RC_OK;
}

std::uint32_t LogAppender::finishCommit() {
  if (!isBuilding_) return MD_RC_OK;
  std::sort(longLists_.begin(), longLists_.end());
  longLists_.erase(std::unique(longLists_.begin(), longLists_.end()), longLists_.end());
  for (const ListMark& mark : longLists_) {
    if (const std::uint32_t rc = appendSummary(mark)) return rc;
  }
  longLists_.clear();
  markLast(log_.bytes.tailFrom(last_.offset), last_, log_.bytes.key());
  log_.state.slot().chain = last_.crc;
  ++log_.state.slot().commits;
  isBuilding_ = false;
  return MD_RC_OK;
}

std::uint64_t LogAppender::nextBlocksOffset() const {
  const std::uint64_t bodyEnd = log_.state.end() + sizeof(format::FrameHeader) + sizeof(format::AreaBody);
  return (bodyEnd + format::BLOCK_SIZE - 1) / format::BLOCK_SIZE * format::BLOCK_SIZE;
}

std::uint32_t LogAppender::makeRoomForArea(std::uint64_t blockCount, std::uint64_t bytesBehind) {
  return room_.growFor(nextBlocksOffset() + blockCount * format::BLOCK_SIZE + bytesBehind, REMOVAL_ROOM);
}

// The blocks do not wait in memory: they are written at once, empty and sealed, so that what a crash makes of them is
// never taken for an empty block.
std::uint32_t LogAppender::appendArea(std::uint64_t blockCount) {
  blockCount = std::min(blockCount, format::MAX_BLOCKS);
  if (segmentCount(log_.state.slot()) == format::MAX_SEGMENTS) return GENREG_RC_INTERNAL;
  if (const std::uint32_t rc = makeRoomForArea(blockCount)) return rc;
  Frame frame = newFrame(format::FrameKind::AREA, 0);
  frame.last = true;
  frame.area = format::AreaBody{.blocksOffset = nextBlocksOffset(), .blockCount = blockCount};
  std::vector<std::byte>& tail = log_.bytes.tailUpTo(frame.offset);
  appendFrame(frame, {}, log_.bytes.key(), tail);
  const Segment segment{.offset = frame.area.blocksOffset, .blockCount = blockCount};
  if (const std::uint32_t rc = log_.bytes.writeTail(frame.offset + frame.prefixSize, segment.offset)) return rc;
  if (const std::uint32_t rc = writeEmptyBlocks(log_.bytes.file(), log_.bytes.key().salt, segment)) return rc;
  log_.state.takeArea(frame);
  ++log_.state.slot().commits;
  log_.bytes.beginTail(log_.state.end());
  return MD_RC_OK;
}

std::uint32_t LogAppender::makeRoomForTail() {
  const bool mayUseAllRoom = hasOnlyRemovals_ && known_ == nullptr;
  return room_.growFor(log_.state.end(), mayUseAllRoom ? 0 : REMOVAL_ROOM);
}

std::uint32_t LogAppender::writeTail() {
  const std::uint64_t end = log_.state.end();
  if (const std::uint32_t rc = log_.bytes.writeTail(end, end + format::TERMINATOR_SIZE)) return rc;
  log_.bytes.beginTail(end);
  return MD_RC_OK;
}

bool LogAppender::isHeavy() const {
  return log_.bytes.tailSize() > HEAVY_TAIL || log_.state.newHeadCount() > HEAVY_HEADS;
}

}  // namespace zon
