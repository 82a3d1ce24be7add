// Reading and sealing of the header page; see file_header.h.
#include "platform/registry/log/file_header.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "platform/registry/files/file_io.h"
#include "platform/registry/files/stub.h"
#include "platform/registry/files/system_calls.h"
#include "platform/registry/format/crc32c.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

namespace {

constexpr const char* BOOT_ID_PATH = "/proc/sys/kernel/random/boot_id";

int hexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

bool hasMagic(const format::FileHeader& header) {
  return std::memcmp(header.magic, format::MAGIC, sizeof header.magic) == 0;
}

bool isIntact(const format::FileHeader& header) { return hasMagic(header) && header.crc == headerChecksum(header); }

std::uint32_t slotChecksum(const format::Slot& slot, std::uint32_t salt) {
  const auto bytes = bytesOf(slot);
  return crc32c(salt, bytes.data() + sizeof slot.crc, slotSize(slot) - sizeof slot.crc);
}

bool isFrameOffset(std::uint64_t offset, const format::Slot& slot) {
  return offset >= format::LOG_START && offset < slot.end && offset % format::FRAME_ALIGNMENT == 0;
}

// Each segment lies behind the one before and below the end. Answers the bytes that they cover together.
bool hasPossibleSegments(const format::Slot& slot, std::uint64_t& covered) {
  const std::size_t count = segmentCount(slot);
  std::uint64_t from = format::LOG_START;
  covered = 0;
  for (std::size_t at = 0; at < count; ++at) {
    const Segment segment = unpackSegment(slot.segments[at]);
    const std::uint64_t size = segment.blockCount * format::BLOCK_SIZE;
    if (segment.blockCount == 0 || segment.blockCount > format::MAX_BLOCKS) return false;
    if (segment.offset < from || segment.offset > slot.end || size > slot.end - segment.offset) return false;
    covered += size;
    from = segment.offset + size;
  }
  return std::all_of(slot.segments + count, std::end(slot.segments), [](std::uint64_t packed) { return packed == 0; });
}

// Every reader asks this of up to 96 entries: the subtraction takes what lies before the log for what lies behind it.
// REQUIRES: the slot's end is possible.
bool hasPossibleOverlay(const format::Slot& slot) {
  const std::uint64_t logSize = slot.end - format::LOG_START;
  return std::all_of(slot.overlay, slot.overlay + slot.overlayCount, [logSize](const format::OverlayEntry& entry) {
    const std::uint64_t index = entry.offsetAndIndex % format::FRAME_ALIGNMENT;
    return index < format::MAX_INDEXES && entry.offsetAndIndex - index - format::LOG_START < logSize;
  });
}

// Whatever its checksum says, what a slot tells must be possible: nothing uses its numbers before this was asked.
// Whether the file reaches as far as its end is for those to ask who know the file's size.
bool isPossible(const format::Slot& slot) {
  if (slot.end < format::LOG_START || slot.end >= format::MAX_OFFSET || slot.end % format::FRAME_ALIGNMENT != 0)
    return false;
  if (slot.indexedEnd < format::LOG_START || slot.indexedEnd > slot.end ||
      slot.indexedEnd % format::FRAME_ALIGNMENT != 0)
    return false;
  std::uint64_t covered = 0;
  if (!hasPossibleSegments(slot, covered) || !hasPossibleOverlay(slot)) return false;
  const std::uint64_t room = slot.end - format::LOG_START - covered;
  return slot.sequence < format::MAX_SEQUENCE && slot.liveFrameBytes <= room &&
         slot.records <= slot.liveFrameBytes / format::LEAST_RECORD_FRAME &&
         (slot.firstEvent == 0 || isFrameOffset(slot.firstEvent, slot));
}

bool isIntact(const format::Slot& slot, std::uint32_t salt) {
  return slot.overlayCount <= format::OVERLAY_CAPACITY && slot.overlayApplied <= slot.overlayCount &&
         slot.crc == slotChecksum(slot, salt) && isPossible(slot);
}

using PageBytes = std::span<std::byte, format::HEADER_READ_SIZE>;

// Reads the page, zeros standing for what lies behind the file's end. A sector that the disk cannot read is all zeros
// too, and so passes no checksum; the other one has a header and a slot of its own.
std::uint32_t readPageBytes(int file, PageBytes bytes, bool& isWhole) {
  isWhole = true;
  std::size_t got = 0;
  std::uint32_t rc = readAt(file, 0, bytes, got);
  if (rc != RC_UNREADABLE) {
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(got), bytes.end(), std::byte{0});
    return rc;
  }
  for (const std::size_t offset : {std::size_t{0}, format::SECTOR_SIZE}) {
    const auto sector = bytes.subspan(offset, std::min(format::SECTOR_SIZE, bytes.size() - offset));
    rc = readAt(file, offset, sector, got);
    if (rc != MD_RC_OK && rc != RC_UNREADABLE) return rc;
    if (rc != MD_RC_OK) got = 0;
    isWhole = isWhole && rc == MD_RC_OK;
    std::fill(sector.begin() + static_cast<std::ptrdiff_t>(got), sector.end(), std::byte{0});
  }
  return MD_RC_OK;
}

// What a file is that has neither a header nor its copy.
std::uint32_t judgeWithoutHeader(int file, PageBytes bytes, const HeaderPage& page) {
  FileState state;
  if (const std::uint32_t rc = stateOf(file, state)) return rc;
  if (mayBeStub(bytes, state.size)) return RC_STUB;
  return page.isWhole ? GENREG_RC_NOT_RECORD_FILE : GENREG_RC_DAMAGED;
}

// The header, or its copy when the first one is unreadable.
std::uint32_t chooseHeader(int file, PageBytes bytes, HeaderPage& page) {
  const format::FileHeader& first = page.header;
  page.headerValid = {isIntact(first), isIntact(page.headerCopy)};
  if (page.headerValid[0]) return MD_RC_OK;
  if (page.headerValid[1]) {
    page.header = page.headerCopy;
    return MD_RC_OK;
  }
  if (hasMagic(first) && first.version > format::FORMAT_VERSION && first.version < 0x10000)
    return GENREG_RC_NEWER_FORMAT;
  return hasMagic(first) || hasMagic(page.headerCopy) ? GENREG_RC_DAMAGED : judgeWithoutHeader(file, bytes, page);
}

}  // namespace

std::uint32_t currentBootId(BootId& id) {
  id = {};
  Descriptor file;
  const std::uint32_t opened = openAnything(AT_FDCWD, BOOT_ID_PATH, O_RDONLY, 0, file);
  // Where it is forbidden, as in a sandbox, it stays so: that is no reason to refuse all work for ever.
  if (opened == GENREG_RC_NOT_FOUND || opened == GENREG_RC_NO_PERMISSION) return MD_RC_OK;
  if (opened != MD_RC_OK) return opened;
  std::array<char, 64> text{};
  std::size_t got = 0;
  const std::uint32_t rc = readAt(file.get(), 0, std::as_writable_bytes(std::span(text).first(36)), got);
  if (rc != MD_RC_OK) return rc == RC_UNREADABLE ? GENREG_RC_IO_ERROR : rc;
  BootId read{};
  std::size_t digits = 0;
  for (std::size_t at = 0; at < got && digits < 32; ++at) {
    const int digit = hexDigit(text[at]);
    if (digit < 0) continue;
    read[digits / 2] = static_cast<std::uint8_t>(read[digits / 2] << 4 | digit);
    ++digits;
  }
  if (digits == 32) id = read;
  return MD_RC_OK;
}

Run compareRuns(const RunId& present, const format::Slot& slot) {
  const bool isSameBoot =
      present.boot != BootId{} && std::memcmp(present.boot.data(), slot.bootId, present.boot.size()) == 0;
  if (!isSameBoot) return Run::OTHER;
  if (present.mount == 0 || slot.mountId == 0) return Run::UNSURE;
  return present.mount == slot.mountId ? Run::SAME : Run::OTHER;
}

std::uint32_t currentRun(int file, RunId& run) {
  FileState state;
  if (const std::uint32_t rc = stateOf(file, state)) return rc;
  run.mount = state.mount;
  return currentBootId(run.boot);
}

bool isOfPresentRun(int file, const format::Slot& slot) {
  RunId run;
  return currentRun(file, run) == MD_RC_OK && compareRuns(run, slot) != Run::OTHER;
}

static_assert(STORE_NAME_SIZE == format::STORE_NAME_SIZE && GenRegBase::MAX_INDEXES == format::MAX_INDEXES);

bool isHeaderOf(const format::FileHeader& header, const RecordType& type) {
  return std::equal(type.indexFlags.begin(), type.indexFlags.end(), header.indexFlags) &&
         std::equal(type.store.begin(), type.store.end(), header.store);
}

std::uint32_t headerChecksum(const format::FileHeader& header) {
  return crc32c(0, &header, offsetof(format::FileHeader, crc));
}

std::size_t slotSize(const format::Slot& slot) {
  return offsetof(format::Slot, overlay) + std::size_t{slot.overlayCount} * sizeof(format::OverlayEntry);
}

void sealSlot(format::Slot& slot, std::uint32_t salt) { slot.crc = slotChecksum(slot, salt); }

std::size_t HeaderPage::newest() const {
  if (!slotValid[0]) return 1;
  if (!slotValid[1]) return 0;
  return slots[1].sequence > slots[0].sequence ? 1 : 0;
}

std::uint32_t readHeaderPage(int file, HeaderPage& page) {
  const PageBytes bytes(writableBytesOf(static_cast<HeaderPageBytes&>(page)));
  if (const std::uint32_t rc = readPageBytes(file, bytes, page.isWhole)) return rc;
  if (const std::uint32_t rc = chooseHeader(file, bytes, page)) return rc;
  const bool isKnown = page.header.version == format::FORMAT_VERSION && page.header.headerSize == format::LOG_START;
  if (!isKnown || page.header.mustUnderstand != 0) return GENREG_RC_NEWER_FORMAT;
  const std::uint32_t salt = saltOf(page.header.fileId);
  for (std::size_t slot = 0; slot < page.slots.size(); ++slot) {
    // A slot that stands in the other one's place was not written there by a writer.
    page.slotValid[slot] = isIntact(page.slots[slot], salt) && page.slots[slot].sequence % 2 == slot;
  }
  return MD_RC_OK;
}

}  // namespace zon
