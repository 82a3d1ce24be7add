// What is known of one committed state of a log: where it ends, what it counts, and which heads of lists no index block
// leads to yet. A writer's state is ahead of the published one by what it has appended.
//
// The rule: it moves by whole frames, each of which begins where the state ends.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "platform/registry/format/frame.h"
#include "platform/registry/format/record_type.h"
#include "platform/registry/log/log_bytes.h"

namespace zon {

// How much of the log a live record takes.
struct RecordSizes {
  std::uint64_t record = 0;
  std::uint64_t frame = 0;
};

class LogState {
 public:
  explicit LogState(const RecordType& type) : type_(type) {}
  LogState(const LogState&) = delete;
  LogState& operator=(const LogState&) = delete;

  // The state that a slot publishes.
  void begin(const format::FileHeader& header, const format::Slot& slot);

  const format::FileHeader& header() const { return header_; }
  // Its counts and its end are kept up to date; its overlay and segments are what the file's index covers.
  const format::Slot& slot() const { return slot_; }
  format::Slot& slot() { return slot_; }
  std::uint64_t end() const { return slot_.end; }
  bool isUnique() const { return (slot_.flags & format::SLOT_NOT_UNIQUE) == 0; }

  Digests digestsOf(const void* record) const;
  std::uint64_t digestOf(std::size_t index, const void* record) const {
    return type_.digestFor(index, record, header_.hashSeed);
  }

  // The head of a list that only this state knows, or the slot's overlay; 0 without one.
  std::uint64_t newHead(std::size_t index, std::uint64_t digest) const;
  std::size_t newHeadCount() const;
  void forgetNewHeads();
  // All heads that the blocks may not lead to durably.
  std::vector<format::OverlayEntry> unindexedHeads() const;

  // Each takes a frame that was put at end(). Of an event the digests are its record's, and `old` tells the size of
  // what a change or removal replaces, which the counts must cover.
  void takeEvent(const Frame& frame, const Digests& digests, std::size_t recordSize, const RecordSizes* old);
  void takeSummary(const Frame& frame);
  // REQUIRES: the slot has room for a segment.
  void takeArea(const Frame& frame);

  // The slot's counts are no smaller than what is to be taken from them.
  bool countsCover(const RecordSizes& old) const;

  // Only the heads of an event that the slot has counted.
  void takeHeads(const Digests& digests, std::uint64_t offset);
  void takeSummaryHead(const Frame& frame);

 private:
  void moveBehind(const Frame& frame);

  const RecordType& type_;
  format::FileHeader header_{};
  format::Slot slot_{};
  // Heads newer than the slot's overlay, by index: digest -> offset, 0 for one that was never set.
  std::array<std::unordered_map<std::uint64_t, std::uint64_t>, format::MAX_INDEXES> newHeads_;
};

// The two parts of an overlay entry's second number.
inline std::uint64_t offsetOf(const format::OverlayEntry& entry) {
  return entry.offsetAndIndex & ~format::OVERLAY_INDEX_MASK;
}
inline std::size_t indexOf(const format::OverlayEntry& entry) {
  return entry.offsetAndIndex & format::OVERLAY_INDEX_MASK;
}

}  // namespace zon
