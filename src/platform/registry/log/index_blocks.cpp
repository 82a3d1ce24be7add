// See index_blocks.h for what must hold.
#include "platform/registry/log/index_blocks.h"

#include <algorithm>

#include "platform/registry/files/file_io.h"
#include "platform/registry/format/crc32c.h"
#include "platform/registry/format/frame.h"

namespace zon {

namespace {

constexpr int MOST_READS = 64;

std::size_t usedSize(const format::Block& block) {
  return offsetof(format::Block, entries) + std::size_t{block.count} * sizeof(std::uint64_t);
}

std::uint32_t blockChecksum(const format::Block& block, std::uint32_t salt, std::uint64_t offset) {
  const auto bytes = bytesOf(block);
  return crc32c(checksumStart(salt, offset), bytes.data() + sizeof block.crc, usedSize(block) - sizeof block.crc);
}

// Whatever its checksum says, what a block tells must be possible. Entries may lead behind a reader's end.
bool isPossible(const format::Block& block) {
  return std::all_of(block.entries, block.entries + block.count, [](std::uint64_t entry) {
    return entry >> 62 < format::MAX_INDEXES && entryOffset(entry) >= format::LOG_START;
  });
}

std::uint32_t visitSegment(int file, std::uint32_t salt, const Segment& segment, std::size_t index,
                           std::uint64_t digest, const EntryLook& look, Search& search) {
  std::uint64_t at = homeBlock(digest, segment.blockCount);
  for (std::uint64_t probe = 0; probe < std::min(MOST_PROBES, segment.blockCount); ++probe) {
    format::Block block;
    if (const std::uint32_t rc = readBlock(file, salt, segment.offset + at * format::BLOCK_SIZE, block)) return rc;
    for (std::size_t entry = 0; entry < block.count; ++entry) {
      if (!mayBeOf(block.entries[entry], index, digest)) continue;
      const std::uint32_t rc = look(entryOffset(block.entries[entry]), search);
      if (rc != MD_RC_OK || search == Search::DONE) return rc;
    }
    if (block.overflowed == 0) break;
    at = at + 1 == segment.blockCount ? 0 : at + 1;
  }
  return MD_RC_OK;
}

constexpr std::uint64_t TAG_MASK = (std::uint64_t{1} << 22) - 1;

// What an entry has in common with all others of the same index and tag.
std::uint64_t entryMark(std::size_t index, std::uint64_t digest) {
  return static_cast<std::uint64_t>(index) << 22 | (digest >> 42 & TAG_MASK);
}

}  // namespace

std::uint64_t packSegment(const Segment& segment) {
  return segment.blockCount << 40 | segment.offset / format::BLOCK_SIZE;
}

Segment unpackSegment(std::uint64_t packed) {
  return Segment{.offset = (packed & ((std::uint64_t{1} << 40) - 1)) * format::BLOCK_SIZE, .blockCount = packed >> 40};
}

std::size_t segmentCount(const format::Slot& slot) {
  return static_cast<std::size_t>(std::find(std::begin(slot.segments), std::end(slot.segments), 0) -
                                  std::begin(slot.segments));
}

std::uint64_t segmentCapacity(std::uint64_t blockCount) { return blockCount * format::BLOCK_ENTRIES * 4 / 5; }

std::uint64_t makeEntry(std::size_t index, std::uint64_t digest, std::uint64_t offset) {
  return entryMark(index, digest) << 40 | offset / format::FRAME_ALIGNMENT;
}

std::uint64_t entryOffset(std::uint64_t entry) {
  return (entry & ((std::uint64_t{1} << 40) - 1)) * format::FRAME_ALIGNMENT;
}

bool mayBeOf(std::uint64_t entry, std::size_t index, std::uint64_t digest) {
  return entry >> 40 == entryMark(index, digest);
}

std::uint64_t homeBlock(std::uint64_t digest, std::uint64_t blockCount) {
  return (digest & 0xFFFFFFFF) * blockCount >> 32;
}

void sealBlock(format::Block& block, std::uint32_t salt, std::uint64_t offset) {
  block.crc = blockChecksum(block, salt, offset);
}

std::uint32_t readBlock(int file, std::uint32_t salt, std::uint64_t offset, format::Block& block) {
  for (int round = 0; round < MOST_READS; ++round) {
    std::size_t got = 0;
    if (const std::uint32_t rc = readAt(file, offset, writableBytesOf(block), got)) return rc;
    if (got < sizeof block) break;
    if (block.count > format::BLOCK_ENTRIES || block.crc != blockChecksum(block, salt, offset)) continue;
    return isPossible(block) ? MD_RC_OK : GENREG_RC_DAMAGED;
  }
  return GENREG_RC_DAMAGED;
}

std::uint32_t visitEntries(int file, std::uint32_t salt, const format::Slot& slot, std::size_t index,
                           std::uint64_t digest, const EntryLook& look) {
  Search search = Search::CONTINUE;
  for (std::size_t segment = segmentCount(slot); segment-- > 0 && search == Search::CONTINUE;) {
    const Segment blocks = unpackSegment(slot.segments[segment]);
    if (const std::uint32_t rc = visitSegment(file, salt, blocks, index, digest, look, search)) return rc;
  }
  return MD_RC_OK;
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
