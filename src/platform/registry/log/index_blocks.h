// The index: blocks of entries that lead from a digest to the head of its list. Blocks lie in segments (AREA frames); a
// digest has one home block in each segment, and only the newest segment takes new entries. Blocks are the only bytes
// behind the header page that are overwritten in place; the slot's overlay covers every entry that a crash could take
// from them.
//
// The rule: every entry leads to the head of one list, but digests share tags: whoever follows one compares records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/registry/format/answer.h"
#include "platform/registry/format/format.h"

namespace zon {

struct Segment {
  std::uint64_t offset;
  std::uint64_t blockCount;
};

std::uint64_t packSegment(const Segment& segment);
Segment unpackSegment(std::uint64_t packed);
std::size_t segmentCount(const format::Slot& slot);

// Entries that a segment takes before a new one is made: blocks fill unevenly.
std::uint64_t segmentCapacity(std::uint64_t blockCount);

std::uint64_t makeEntry(std::size_t index, std::uint64_t digest, std::uint64_t offset);
std::uint64_t entryOffset(std::uint64_t entry);
// Of the same index and tag: the entry may be of this digest.
bool mayBeOf(std::uint64_t entry, std::size_t index, std::uint64_t digest);

// The home block of a digest in a segment of so many blocks.
std::uint64_t homeBlock(std::uint64_t digest, std::uint64_t blockCount);

// Of a segment.
constexpr std::uint64_t LEAST_BLOCKS = 8;

// How far an entry may lie behind its home block.
constexpr std::uint64_t MOST_PROBES = 16;

// Sets the checksum of a block that lies at offset.
void sealBlock(format::Block& block, std::uint32_t salt, std::uint64_t offset);

// Reads a block and checks it. A block that a writer is just overwriting is read again; GENREG_RC_DAMAGED after that.
[[nodiscard]] std::uint32_t readBlock(int file, std::uint32_t salt, std::uint64_t offset, format::Block& block);

// The blocks of a segment in which entries of a digest may be: its home block, and as long as they overflowed those
// behind it.
class Probe {
 public:
  Probe(const Segment& segment, std::uint64_t digest)
      : segment_(segment),
        block_(homeBlock(digest, segment.blockCount)),
        left_(segment.blockCount < MOST_PROBES ? segment.blockCount : MOST_PROBES) {}

  bool isInside() const { return left_ > 0; }
  std::uint64_t offset() const { return segment_.offset + block_ * format::BLOCK_SIZE; }
  void advance() {
    block_ = block_ + 1 == segment_.blockCount ? 0 : block_ + 1;
    --left_;
  }

 private:
  Segment segment_;
  std::uint64_t block_;
  std::uint64_t left_;
};

// The entries that may be of a digest, from the newest segment to the oldest.
class EntrySearch {
 public:
  // The slot must outlive the search.
  EntrySearch(int file, std::uint32_t salt, const format::Slot& slot, std::size_t index, std::uint64_t digest)
      : file_(file), salt_(salt), slot_(slot), index_(index), digest_(digest), segmentsLeft_(segmentCount(slot)) {}

  // Where the next of them leads to; 0 behind the last.
  Answer<std::uint64_t> next();

 private:
  [[nodiscard]] std::uint32_t readNextBlock();

  int file_;
  std::uint32_t salt_;
  const format::Slot& slot_;
  std::size_t index_;
  std::uint64_t digest_;
  std::size_t segmentsLeft_;
  std::optional<Probe> probe_;
  format::Block block_;
  std::size_t nextEntry_ = 0;
};

// Writes empty blocks over a whole segment.
[[nodiscard]] std::uint32_t writeEmptyBlocks(int file, std::uint32_t salt, const Segment& segment);

}  // namespace zon
