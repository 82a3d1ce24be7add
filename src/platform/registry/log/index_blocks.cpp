// Packing, checking and searching blocks.
//
// The rule: nothing of a block is used before its checksum has passed and its numbers are possible.
#include "platform/registry/log/index_blocks.h"

#include <algorithm>

#include "platform/registry/files/file_io.h"
#include "platform/registry/format/crc32c.h"
#include "platform/registry/format/frame.h"

namespace zon {

namespace {

constexpr int MOST_READS = 64;

constexpr std::uint64_t lowBits(unsigned count) { return (std::uint64_t{1} << count) - 1; }

std::size_t usedSize(const format::Block& block) {
  return offsetof(format::Block, entries) + std::size_t{block.count} * sizeof(std::uint64_t);
}

std::uint32_t blockChecksum(const format::Block& block, std::uint32_t salt, std::uint64_t offset) {
  const auto bytes = bytesOf(block);
  return crc32c(checksumStart(salt, offset), bytes.data() + sizeof block.crc, usedSize(block) - sizeof block.crc);
}

// Whatever its checksum says, what an entry tells must be possible. It may lead behind a reader's end.
bool isPossible(std::uint64_t entry) {
  return entry >> format::ENTRY_INDEX_SHIFT < format::MAX_INDEXES && entryOffset(entry) >= format::LOG_START;
}

// A block that passes its checksum. One that a writer is just overwriting is read again.
std::uint32_t readSealed(int file, std::uint32_t salt, std::uint64_t offset, format::Block& block) {
  for (int round = 0; round < MOST_READS; ++round) {
    std::size_t got = 0;
    if (const std::uint32_t rc = readAt(file, offset, writableBytesOf(block), got)) return rc;
    if (got < sizeof block) break;
    if (block.count <= format::BLOCK_ENTRIES && block.crc == blockChecksum(block, salt, offset)) return MD_RC_OK;
  }
  return GENREG_RC_DAMAGED;
}

// What an entry has in common with all others of the same index and tag: its bits above the offset.
std::uint64_t entryMark(std::size_t index, std::uint64_t digest) {
  constexpr unsigned INDEX_SHIFT = format::ENTRY_INDEX_SHIFT - format::ENTRY_TAG_SHIFT;
  return static_cast<std::uint64_t>(index) << INDEX_SHIFT | digest >> (64 - INDEX_SHIFT);
}

}  // namespace

std::uint64_t packSegment(const Segment& segment) {
  return segment.blockCount << format::SEGMENT_COUNT_SHIFT | segment.offset / format::BLOCK_SIZE;
}

Segment unpackSegment(std::uint64_t packed) {
  return Segment{.offset = (packed & lowBits(format::SEGMENT_COUNT_SHIFT)) * format::BLOCK_SIZE,
                 .blockCount = packed >> format::SEGMENT_COUNT_SHIFT};
}

std::size_t segmentCount(const format::Slot& slot) {
  return static_cast<std::size_t>(std::find(std::begin(slot.segments), std::end(slot.segments), 0) -
                                  std::begin(slot.segments));
}

std::uint64_t segmentCapacity(std::uint64_t blockCount) { return blockCount * format::BLOCK_ENTRIES * 4 / 5; }

std::uint64_t makeEntry(std::size_t index, std::uint64_t digest, std::uint64_t offset) {
  return entryMark(index, digest) << format::ENTRY_TAG_SHIFT | offset / format::FRAME_ALIGNMENT;
}

std::uint64_t entryOffset(std::uint64_t entry) {
  return (entry & lowBits(format::ENTRY_TAG_SHIFT)) * format::FRAME_ALIGNMENT;
}

bool mayBeOf(std::uint64_t entry, std::size_t index, std::uint64_t digest) {
  return entry >> format::ENTRY_TAG_SHIFT == entryMark(index, digest);
}

std::uint64_t homeBlock(std::uint64_t digest, std::uint64_t blockCount) {
  return (digest & 0xFFFFFFFF) * blockCount >> 32;
}

void sealBlock(format::Block& block, std::uint32_t salt, std::uint64_t offset) {
  block.crc = blockChecksum(block, salt, offset);
}

std::uint32_t readBlock(int file, std::uint32_t salt, std::uint64_t offset, format::Block& block) {
  if (const std::uint32_t rc = readSealed(file, salt, offset, block)) return rc;
  const bool arePossible = std::all_of(block.entries, block.entries + block.count, isPossible);
  return arePossible ? MD_RC_OK : GENREG_RC_DAMAGED;
}

// Behind the last block of a segment comes the next older segment; without one, no block is left.
std::uint32_t EntrySearch::readNextBlock() {
  nextEntry_ = 0;
  if (probe_.has_value()) {
    probe_->advance();
    if (block_.overflowed == 0 || !probe_->isInside()) probe_.reset();
  }
  if (!probe_.has_value()) {
    if (segmentsLeft_ == 0) return MD_RC_OK;
    probe_.emplace(unpackSegment(slot_.segments[--segmentsLeft_]), digest_);
  }
  return readSealed(file_, salt_, probe_->offset(), block_);
}

Answer<std::uint64_t> EntrySearch::next() {
  for (;;) {
    while (probe_.has_value() && nextEntry_ < block_.count) {
      const std::uint64_t entry = block_.entries[nextEntry_++];
      if (!mayBeOf(entry, index_, digest_)) continue;
      if (!isPossible(entry)) return {.rc = GENREG_RC_DAMAGED};
      return {.value = entryOffset(entry)};
    }
    if (const std::uint32_t rc = readNextBlock()) return {.rc = rc};
    if (!probe_.has_value()) return {};
  }
}

std::uint32_t writeEmptyBlocks(int file, std::uint32_t salt, const Segment& segment) {
  std::vector<format::Block> blocks(static_cast<std::size_t>(std::min<std::uint64_t>(segment.blockCount, 128)));
  for (std::uint64_t block = 0; block < segment.blockCount; block += blocks.size()) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(blocks.size(), segment.blockCount - block));
    const std::uint64_t offset = segment.offset + block * format::BLOCK_SIZE;
    for (std::size_t at = 0; at < count; ++at) {
      blocks[at] = format::Block{};
      sealBlock(blocks[at], salt, offset + at * format::BLOCK_SIZE);
    }
    if (const std::uint32_t rc = writeAt(file, offset, std::as_bytes(std::span(blocks).first(count)))) return rc;
  }
  return MD_RC_OK;
}

}  // namespace zon
