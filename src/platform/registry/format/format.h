// What a record file holds, byte for byte; docs/file-format.md tells the same to readers of the file. Everything here
// is on disk: never change a value, offset or meaning without a new FORMAT_VERSION. Integers are little-endian.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace zon::format {

static_assert(std::endian::native == std::endian::little,
              "the structures below are read and written as they lie in memory");

constexpr char MAGIC[8] = {'Z', 'O', 'N', 'R', 'E', 'G', '\r', '\n'};
constexpr std::uint32_t FORMAT_VERSION = 1;

constexpr std::size_t MAX_INDEXES = 3;
constexpr std::uint64_t LOG_START = 8192;  // the first frame; before it lie the two sectors of the header page
// A disk may spoil a whole sector that it was writing when the power went: each one has a header and a slot.
constexpr std::uint64_t SECTOR_SIZE = 4096;
constexpr std::uint64_t SLOT_OFFSET[2] = {3072, 4096};
constexpr std::uint64_t HEADER_COPY_OFFSET = 5120;
constexpr std::uint64_t FRAME_ALIGNMENT = 8;
constexpr std::uint64_t MAX_OFFSET = std::uint64_t{1} << 43;  // what an index entry can address
// The odd number next to 2^64 over the golden ratio: its products spread what lies close together.
constexpr std::uint64_t GOLDEN_RATIO = 0x9E3779B97F4A7C15u;

constexpr std::size_t STORE_NAME_SIZE = 64;

// Written once, when the file is made. Stands at 0 and again at HEADER_COPY_OFFSET.
struct FileHeader {
  char magic[8];
  std::uint32_t version;
  std::uint32_t headerSize;  // LOG_START
  std::uint64_t fileId;      // random; a rewritten file gets a new one
  std::uint64_t hashSeed;    // random; keys the digests of the index
  std::uint8_t indexFlags[8];
  std::uint64_t repairs;
  std::uint64_t lostBytes;
  std::uint64_t lossyRepairs;    // repairs, and states taken over as they were found, that may have cost records
  char store[STORE_NAME_SIZE];   // the file's name when it was made, cut at one byte less, filled up with NULs
  std::uint32_t mustUnderstand;  // a bit for each later addition that a reader must know; none so far
  std::uint32_t crc;             // over all bytes before it
};
static_assert(sizeof(FileHeader) == 136);
static_assert(offsetof(FileHeader, fileId) == 16 && offsetof(FileHeader, indexFlags) == 32);
static_assert(offsetof(FileHeader, lossyRepairs) == 56 && offsetof(FileHeader, store) == 64);
static_assert(offsetof(FileHeader, crc) == 132);

constexpr std::size_t HEADER_READ_SIZE = HEADER_COPY_OFFSET + sizeof(FileHeader);  // both headers and both slots

// An index change that the blocks may not hold durably yet: the head of the list of this digest. As frames are
// aligned, the low three bits of the offset are free to hold the index's number.
struct OverlayEntry {
  std::uint64_t digest;
  std::uint64_t offsetAndIndex;
};
constexpr std::uint64_t OVERLAY_INDEX_MASK = FRAME_ALIGNMENT - 1;
static_assert(MAX_INDEXES <= FRAME_ALIGNMENT);

constexpr std::size_t MAX_SEGMENTS = 16;
constexpr std::size_t OVERLAY_CAPACITY = 48;

// Publishes the log up to `end`. Two slots are written in turn; the valid one with the higher sequence counts.
struct Slot {
  std::uint32_t crc;  // over the bytes after it, up to the last overlay entry in use
  std::uint16_t overlayCount;
  std::uint16_t overlayApplied;  // how many of the first entries the blocks hold already
  std::uint64_t sequence;
  std::uint64_t end;    // where the next commit goes
  std::uint32_t chain;  // crc of the last frame before end
  std::uint32_t flags;  // SLOT_ bits
  std::uint64_t records;
  std::uint64_t recordBytes;
  std::uint64_t liveFrameBytes;
  std::uint64_t firstEvent;  // offset of the first change or removal frame, 0 when there is none
  std::uint64_t commits;
  std::uint8_t bootId[16];       // of the machine's run in which this slot was written
  std::uint64_t mountId;         // of the file system's mount through which it was written, 0 when not known
  std::uint64_t segmentEntries;  // entries in the newest segment
  std::uint64_t backupEnd;       // how far the backup reached when this slot was written
  std::uint64_t indexedEnd;      // overlay and blocks lead to the frames before this; to those up to `end` nothing does
  std::uint64_t acknowledgedLosses;      // how many of the header's lossyRepairs somebody has taken note of
  std::uint64_t segments[MAX_SEGMENTS];  // blocks << SEGMENT_COUNT_SHIFT | offset / BLOCK_SIZE, oldest first, then 0
  OverlayEntry overlay[OVERLAY_CAPACITY];
};
static_assert(sizeof(Slot) == 1024);
static_assert(offsetof(Slot, sequence) == 8 && offsetof(Slot, bootId) == 72 && offsetof(Slot, mountId) == 88);
static_assert(offsetof(Slot, indexedEnd) == 112 && offsetof(Slot, segments) == 128 && offsetof(Slot, overlay) == 256);
static_assert(SLOT_OFFSET[0] + sizeof(Slot) <= SECTOR_SIZE && SLOT_OFFSET[1] + sizeof(Slot) <= HEADER_COPY_OFFSET);

// No writer counts so far. One that finds a sequence at or above LAST_SEQUENCE, from where it could grow no further,
// has the file written anew.
constexpr std::uint64_t MAX_SEQUENCE = std::uint64_t{1} << 63;
constexpr std::uint64_t LAST_SEQUENCE = std::uint64_t{1} << 62;

constexpr std::uint32_t SLOT_NOT_UNIQUE = 1;      // several live records may have the same whole key
constexpr std::uint32_t SLOT_NAME_UNSYNCED = 2;   // the directory must be synced before a commit is acknowledged
constexpr std::uint32_t SLOT_UPKEEP_BLOCKED = 4;  // by damage that the writer might not repair

enum class FrameKind : std::uint8_t {
  INSERT = 1,   // a record; its place in the scan order is the frame's own offset
  CHANGE = 2,   // a newer form of the record at a place
  REMOVE = 3,   // the record at a place is gone; the payload is its digests, one for each index
  AREA = 4,     // room for index blocks, which alone are overwritten in place
  SUMMARY = 5,  // the live records of one list, so that readers need not walk further
};

constexpr std::uint8_t FRAME_LAST = 1;   // flag: this frame completes its commit
constexpr std::uint8_t FRAME_CLEAN = 2;  // flag of CHANGE and REMOVE: no older frame of the place lies below `below`
constexpr std::size_t MAX_PREFIX_SIZE = 72;
constexpr std::uint64_t LEAST_RECORD_FRAME = 32;  // no record fits a shorter one

// Frames follow each other without gaps from LOG_START on: header, then (by kind) bodies and links, which together are
// the prefix, then the payload and zero padding up to FRAME_ALIGNMENT.
struct FrameHeader {
  std::uint32_t crc;         // over the prefix's bytes after it, keyed by file and offset
  std::uint32_t chain;       // crc of the frame before; of the first frame: the file's salt
  std::uint32_t payloadCrc;  // over everything behind the prefix, padding included; 0 in AREA frames
  std::uint32_t size;        // up to the next frame; a multiple of FRAME_ALIGNMENT
  std::uint64_t link;  // kind << LINK_KIND_SHIFT | flags << LINK_FLAGS_SHIFT | the next older frame in the whole key's
                       // list, or 0
};
constexpr unsigned LINK_KIND_SHIFT = 56;
constexpr unsigned LINK_FLAGS_SHIFT = 48;
static_assert(sizeof(FrameHeader) == 24 && offsetof(FrameHeader, link) == 16);

// Follows the header of CHANGE and REMOVE frames.
struct EventBody {
  std::uint64_t place;
  std::uint64_t below;  // in the list of the whole key: what lies below every older frame of this place
};

// One for each index but the first, in INSERT, CHANGE and REMOVE frames.
struct Link {
  std::uint64_t previous;
  std::uint32_t events;  // frames in this list since its last summary, this one included
  std::uint32_t live;    // live records in this list
};

// Follows the header of AREA frames; blocks start at the next multiple of BLOCK_SIZE.
struct AreaBody {
  std::uint64_t blocksOffset;
  std::uint64_t blockCount;
};

// Follows the header of SUMMARY frames; the payload is `count` entries sorted by place. The header's link leads to the
// list's head before the summary.
struct SummaryBody {
  std::uint64_t digest;
  std::uint32_t index;
  std::uint32_t count;
};
struct SummaryEntry {
  std::uint64_t place;
  std::uint64_t offset;
};

constexpr std::size_t BLOCK_SIZE = 512;
// Of one segment; its frame, which begins up to 551 bytes before the blocks, has a size of 32 bits.
constexpr std::uint64_t MAX_BLOCKS = (std::uint64_t{1} << 23) - 3;
constexpr std::size_t BLOCK_ENTRIES = 63;

// An index block. An entry is index number << ENTRY_INDEX_SHIFT | the digest's upper bits << ENTRY_TAG_SHIFT | frame
// offset / FRAME_ALIGNMENT.
constexpr unsigned ENTRY_INDEX_SHIFT = 62;
constexpr unsigned ENTRY_TAG_SHIFT = 40;
constexpr unsigned SEGMENT_COUNT_SHIFT = 40;  // of a segment in a slot
struct Block {
  std::uint32_t crc;  // over the bytes after it up to the last entry in use, keyed by file and offset
  std::uint8_t count;
  std::uint8_t overflowed;  // entries that belong here went on to the next block
  std::uint16_t reserved;
  std::uint64_t entries[BLOCK_ENTRIES];
};
static_assert(sizeof(Block) == BLOCK_SIZE);
static_assert(MAX_BLOCKS * BLOCK_SIZE + sizeof(FrameHeader) + sizeof(AreaBody) + BLOCK_SIZE <= UINT32_MAX);

// What lies behind the last commit: so many zero bytes, or a commit under way, or the remains of one.
constexpr std::size_t TERMINATOR_SIZE = sizeof(FrameHeader);

}  // namespace zon::format
