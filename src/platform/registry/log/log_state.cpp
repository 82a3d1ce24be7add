// Taking frames into the counts and the heads.
//
// The rule: without memory for a frame's heads nothing of it is taken.
#include "platform/registry/log/log_state.h"

#include "platform/registry/log/index_blocks.h"

namespace zon {

void LogState::begin(const format::FileHeader& header, const format::Slot& slot) {
  header_ = header;
  slot_ = slot;
  forgetNewHeads();
}

Digests LogState::digestsOf(const void* record) const {
  Digests digests{};
  for (std::size_t index = 0; index < type_.indexCount; ++index) digests[index] = digestOf(index, record);
  return digests;
}

std::uint64_t LogState::newHead(std::size_t index, std::uint64_t digest) const {
  if (!newHeads_[index].empty()) {
    const auto found = newHeads_[index].find(digest);
    if (found != newHeads_[index].end() && found->second != 0) return found->second;
  }
  for (std::size_t entry = slot_.overlayCount; entry-- > 0;) {
    const format::OverlayEntry& candidate = slot_.overlay[entry];
    if (candidate.digest == digest && indexOf(candidate) == index) return offsetOf(candidate);
  }
  return 0;
}

std::size_t LogState::newHeadCount() const {
  std::size_t count = 0;
  for (const auto& heads : newHeads_) count += heads.size();
  return count;
}

void LogState::forgetNewHeads() {
  for (auto& heads : newHeads_) heads.clear();
}

std::vector<format::OverlayEntry> LogState::unindexedHeads() const {
  std::vector<format::OverlayEntry> heads;
  heads.reserve(slot_.overlayCount + newHeadCount());
  // I4: what was applied before the last sync is durable in the blocks by now, and may leave the overlay.
  for (std::size_t entry = slot_.overlayApplied; entry < slot_.overlayCount; ++entry) {
    const auto& newer = newHeads_[indexOf(slot_.overlay[entry])];
    const auto found = newer.find(slot_.overlay[entry].digest);
    if (found == newer.end() || found->second == 0) heads.push_back(slot_.overlay[entry]);
  }
  for (std::size_t index = 0; index < type_.indexCount; ++index) {
    for (const auto& [digest, offset] : newHeads_[index]) {
      if (offset != 0) heads.push_back(format::OverlayEntry{.digest = digest, .offsetAndIndex = offset | index});
    }
  }
  return heads;
}

// A place for each head is made before the first is set.
void LogState::takeHeads(const Digests& digests, std::uint64_t offset) {
  std::array<std::uint64_t*, format::MAX_INDEXES> heads{};
  for (std::size_t index = 0; index < type_.indexCount; ++index) heads[index] = &newHeads_[index][digests[index]];
  for (std::size_t index = 0; index < type_.indexCount; ++index) *heads[index] = offset;
}

void LogState::takeSummaryHead(const Frame& frame) {
  newHeads_[frame.summary.index][frame.summary.digest] = frame.offset;
}

bool LogState::countsCover(const RecordSizes& old) const {
  return slot_.records > 0 && slot_.recordBytes >= old.record && slot_.liveFrameBytes >= old.frame;
}

void LogState::takeEvent(const Frame& frame, const Digests& digests, std::size_t recordSize, const RecordSizes* old) {
  takeHeads(digests, frame.offset);
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
  moveBehind(frame);
}

void LogState::takeSummary(const Frame& frame) {
  takeSummaryHead(frame);
  moveBehind(frame);
}

void LogState::takeArea(const Frame& frame) {
  slot_.segments[segmentCount(slot_)] =
      packSegment(Segment{.offset = frame.area.blocksOffset, .blockCount = frame.area.blockCount});
  slot_.segmentEntries = 0;
  moveBehind(frame);
}

void LogState::moveBehind(const Frame& frame) {
  slot_.chain = frame.crc;
  slot_.end = frame.end();
}

}  // namespace zon
