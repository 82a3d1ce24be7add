// The index: blocks of entries that lead from a digest to the newest frame of its chain. Blocks lie in segments (AREA
// frames); a digest has one home block in each segment, and only the newest segment takes new entries. Blocks are the
// only bytes behind the header page that are overwritten in place; the slot's overlay covers every entry that a crash
// could take from them. Every entry is the head of one chain, but digests share tags: whoever follows one compares
// records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

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

// How far an entry may lie behind its home block.
constexpr std::uint64_t MOST_PROBES = 16;

// Sets the checksum of a block that lies at offset.
void sealBlock(format::Block& block, std::uint32_t salt, std::uint64_t offset);

// Reads a block and checks it. A block that a writer is just overwriting is read again; GENREG_RC_DAMAGED after that.
std::uint32_t readBlock(int file, std::uint32_t salt, std::uint64_t offset, format::Block& block);

// What a look at one entry led to.
enum class Search { CONTINUE, DONE };

// Shows `look(offset, search)` the entries that may be of the digest, from the newest segment to the oldest, until it
// is done or answers a failure.
using EntryLook = std::function<std::uint32_t(std::uint64_t offset, Search& search)>;
std::uint32_t visitEntries(int file, std::uint32_t salt, const format::Slot& slot, std::size_t index,
                           std::uint64_t digest, const EntryLook& look);

// Writes empty blocks over a whole segment.
std::uint32_t writeEmptyBlocks(int file, std::uint32_t salt, const Segment& segment);

}  // namespace zon
