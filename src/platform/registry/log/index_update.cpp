// Blocks are read once and written once for all entries that are placed together.
//
// The rule: as index_update.h says.
#include "platform/registry/log/index_update.h"

#include <algorithm>
#include <unordered_map>

#include "platform/registry/files/file_io.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

namespace {

constexpr std::size_t MOST_CACHED_BLOCKS = 4096;

class BlockSet {
 public:
  BlockSet(int file, std::uint32_t salt) : file_(file), salt_(salt) {}

  // Valid until write().
  Answer<format::Block*> get(std::uint64_t offset) {
    const auto [at, isNew] = blocks_.try_emplace(offset);
    if (!isNew) return {.value = &at->second.block};
    if (const std::uint32_t rc = readBlock(file_, salt_, offset, at->second.block)) {
      blocks_.erase(at);
      return {.rc = rc};
    }
    return {.value = &at->second.block};
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

// Finds the entry of the list that a head continues, or room for a new one in the newest segment.
class EntryPlacer {
 public:
  EntryPlacer(const LogView& view, BlockSet& blocks) : view_(view), blocks_(blocks), allowance_(view.newAllowance()) {}

  enum class Result { REPLACED, ADDED, NO_ROOM };

  Answer<Result> place(const format::OverlayEntry& entry) {
    const std::size_t segments = segmentCount(view_.slot());
    // A list that starts with this frame has no entry in the older segments; in the newest one it may have, by a
    // writer that died.
    std::size_t oldest = 0;
    if (segments > 1) {
      const Answer<bool> isFirst = view_.lists().isOldest(indexOf(entry), offsetOf(entry));
      if (isFirst.rc != MD_RC_OK) return {.rc = isFirst.rc};
      if (isFirst.value) oldest = segments - 1;
    }
    for (std::size_t segment = segments; segment-- > oldest;) {
      const Answer<bool> replaced = replaceIn(unpackSegment(view_.slot().segments[segment]), entry);
      if (replaced.rc != MD_RC_OK || replaced.value) return {.rc = replaced.rc, .value = Result::REPLACED};
    }
    return addTo(unpackSegment(view_.slot().segments[segments - 1]), entry);
  }

 private:
  struct Candidate {
    std::uint64_t older;
    std::uint64_t block;
    std::size_t at;
  };

  // Entries that may be an older head of the list, the newest first.
  std::uint32_t findCandidates(const Segment& segment, const format::OverlayEntry& entry,
                               std::vector<Candidate>& candidates) {
    for (Probe probe(segment, entry.digest); probe.isInside(); probe.advance()) {
      const Answer<format::Block*> block = blocks_.get(probe.offset());
      if (block.rc != MD_RC_OK) return block.rc;
      for (std::size_t at = 0; at < block.value->count; ++at) {
        const std::uint64_t candidate = block.value->entries[at];
        if (!mayBeOf(candidate, indexOf(entry), entry.digest)) continue;
        candidates.push_back(Candidate{.older = entryOffset(candidate), .block = probe.offset(), .at = at});
      }
      if (block.value->overflowed == 0) break;
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.older > b.older; });
    return MD_RC_OK;
  }

  // I5: an older head of the same list is replaced; an entry that only shares the tag stays.
  Answer<bool> replaceIn(const Segment& segment, const format::OverlayEntry& entry) {
    std::vector<Candidate> candidates;
    if (const std::uint32_t rc = findCandidates(segment, entry, candidates)) return {.rc = rc};
    std::vector<std::uint64_t> targets;
    targets.reserve(candidates.size());
    for (const Candidate& candidate : candidates) targets.push_back(candidate.older);
    const Answer<std::uint64_t> reached =
        view_.lists().firstReached(indexOf(entry), offsetOf(entry), targets, allowance_);
    if (reached.rc != MD_RC_OK || reached.value == 0) return {.rc = reached.rc};
    const auto found = std::find_if(candidates.begin(), candidates.end(),
                                    [&](const Candidate& candidate) { return candidate.older == reached.value; });
    const Answer<format::Block*> block = blocks_.get(found->block);
    if (block.rc != MD_RC_OK) return {.rc = block.rc};
    block.value->entries[found->at] = makeEntry(indexOf(entry), entry.digest, offsetOf(entry));
    return {.rc = markWayTo(segment, entry.digest, found->block), .value = true};
  }

  // All blocks that a search passes, whose marks lead on, are written also when nothing changes: those that a failed
  // sync dropped are made dirty again by this.
  std::uint32_t markWayTo(const Segment& segment, std::uint64_t digest, std::uint64_t block) {
    for (Probe probe(segment, digest); probe.isInside(); probe.advance()) {
      const Answer<format::Block*> passed = blocks_.get(probe.offset());
      if (passed.rc != MD_RC_OK) return passed.rc;
      blocks_.markDirty(probe.offset());
      if (probe.offset() == block) break;
    }
    return MD_RC_OK;
  }

  Answer<Result> addTo(const Segment& segment, const format::OverlayEntry& entry) {
    for (Probe probe(segment, entry.digest); probe.isInside(); probe.advance()) {
      const Answer<format::Block*> found = blocks_.get(probe.offset());
      if (found.rc != MD_RC_OK) return {.rc = found.rc};
      blocks_.markDirty(probe.offset());
      format::Block& block = *found.value;
      if (block.count < format::BLOCK_ENTRIES) {
        block.entries[block.count++] = makeEntry(indexOf(entry), entry.digest, offsetOf(entry));
        return {.value = Result::ADDED};
      }
      block.overflowed = 1;
    }
    return {.value = Result::NO_ROOM};
  }

  const LogView& view_;
  BlockSet& blocks_;
  ReadAllowance allowance_;
};

}  // namespace

Answer<Placing> placeEntries(LogParts& log, std::vector<format::OverlayEntry> entries) {
  using Result = EntryPlacer::Result;
  format::Slot& slot = log.state.slot();
  const std::size_t segments = segmentCount(slot);
  if (segments == 0) return {.rc = GENREG_RC_DAMAGED};
  const std::uint64_t newest = unpackSegment(slot.segments[segments - 1]).blockCount;
  std::sort(entries.begin(), entries.end(), [newest](const auto& a, const auto& b) {
    return homeBlock(a.digest, newest) < homeBlock(b.digest, newest);
  });
  BlockSet blocks(log.bytes.file(), log.bytes.key().salt);
  EntryPlacer placer(log.view, blocks);
  Placing placing = Placing::COMPLETE;
  for (const format::OverlayEntry& entry : entries) {
    const Answer<Result> placed = placer.place(entry);
    if (placed.rc != MD_RC_OK) return {.rc = placed.rc};
    if (placed.value == Result::NO_ROOM) {
      placing = Placing::SEGMENT_FULL;
      break;
    }
    if (placed.value == Result::ADDED) ++slot.segmentEntries;
    if (blocks.size() > MOST_CACHED_BLOCKS) {
      if (const std::uint32_t rc = blocks.write()) return {.rc = rc};
    }
  }
  return {.rc = blocks.write(), .value = placing};
}

}  // namespace zon
