// See forged_file.h.
#include "platform/registry/harness/forged_file.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <unordered_map>

#include "platform/registry/format/crc32c.h"
#include "platform/registry/log/index_blocks.h"

namespace zon::test {

namespace {

constexpr std::size_t CRC = 0;
constexpr std::size_t CHAIN = 4;
constexpr std::size_t PAYLOAD_CRC = 8;
constexpr std::size_t LINK = 16;
constexpr std::size_t SLOT_HEAD = offsetof(format::Slot, overlay);

format::FrameKind kindAt(std::span<const std::byte> frame) { return static_cast<format::FrameKind>(frame[LINK + 7]); }

std::size_t prefixSizeOf(format::FrameKind kind, std::size_t indexCount) {
  const std::size_t links = (indexCount - 1) * sizeof(format::Link);
  switch (kind) {
    case format::FrameKind::INSERT:
      return sizeof(format::FrameHeader) + links;
    case format::FrameKind::CHANGE:
    case format::FrameKind::REMOVE:
      return sizeof(format::FrameHeader) + sizeof(format::EventBody) + links;
    default:
      return sizeof(format::FrameHeader) + sizeof(format::AreaBody);
  }
}

}  // namespace

FileBytes contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string content((std::istreambuf_iterator<char>(file)), {});
  FileBytes bytes(content.size());
  std::memcpy(bytes.data(), content.data(), content.size());
  return bytes;
}

void putContent(const std::filesystem::path& path, const FileBytes& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::uint64_t Dice::next() {
  std::uint64_t mixed = state_ += 0x9E3779B97F4A7C15u;
  mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9u;
  mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EBu;
  return mixed ^ mixed >> 31;
}

ForgedFile::ForgedFile(FileBytes bytes, std::size_t indexCount) : bytes_(std::move(bytes)), indexCount_(indexCount) {
  const FrameKey key{.salt = saltOf(header().fileId), .indexCount = indexCount};
  Frame frame;
  for (std::uint64_t at = format::LOG_START; at < bytes_.size(); at = frame.end()) {
    if (parseFrame(std::span(bytes_).subspan(at), at, key, frame) != ParseResult::OK) break;
    if (frame.end() > bytes_.size()) break;
    frames_.push_back(frame);
    if (frame.kind != format::FrameKind::AREA) continue;
    for (std::uint64_t block = 0; block < frame.area.blockCount; ++block) {
      blocks_.push_back(frame.area.blocksOffset + block * format::BLOCK_SIZE);
    }
  }
}

format::FileHeader ForgedFile::header() const { return get<format::FileHeader>(0); }

format::Slot ForgedFile::slot(std::size_t number) const { return get<format::Slot>(format::SLOT_OFFSET[number]); }

void ForgedFile::setHeader(const format::FileHeader& header) {
  set(0, header);
  set(format::HEADER_COPY_OFFSET, header);
}

void ForgedFile::setSlot(std::size_t number, const format::Slot& slot) { set(format::SLOT_OFFSET[number], slot); }

void ForgedFile::sealBlocks(std::uint32_t salt) {
  for (const std::uint64_t offset : blocks_) {
    auto block = get<format::Block>(offset);
    if (block.count > format::BLOCK_ENTRIES) continue;
    sealBlock(block, salt, offset);
    set(offset, block);
  }
}

void ForgedFile::sealFrames(std::uint32_t salt) {
  std::unordered_map<std::uint32_t, std::uint32_t> sealed;
  std::uint32_t chain = salt;
  for (const Frame& frame : frames_) {
    if (frame.offset + frame.prefixSize > bytes_.size()) break;
    const std::span<std::byte> bytes = std::span(bytes_).subspan(frame.offset);
    const std::size_t prefixSize = prefixSizeOf(kindAt(bytes), indexCount_);
    const std::uint64_t size = get<std::uint32_t>(frame.offset + offsetof(format::FrameHeader, size));
    if (kindAt(bytes) != format::FrameKind::AREA && size >= prefixSize && size <= bytes.size()) {
      set(frame.offset + PAYLOAD_CRC, crc32c(0, bytes.data() + prefixSize, size - prefixSize));
    }
    set(frame.offset + CHAIN, chain);
    if (prefixSize > bytes.size()) break;
    chain = crc32c(checksumStart(salt, frame.offset), bytes.data() + CHAIN, prefixSize - CHAIN);
    set(frame.offset + CRC, chain);
    sealed[frame.crc] = chain;
  }
  for (std::size_t number = 0; number < 2; ++number) {
    format::Slot changed = slot(number);
    if (sealed.contains(changed.chain)) changed.chain = sealed[changed.chain];
    setSlot(number, changed);
  }
}

void ForgedFile::seal() {
  format::FileHeader changed = header();
  changed.crc = headerChecksum(changed);
  setHeader(changed);
  const std::uint32_t salt = saltOf(changed.fileId);
  sealBlocks(salt);
  sealFrames(salt);
  for (std::size_t number = 0; number < 2; ++number) {
    format::Slot sealed = slot(number);
    if (sealed.overlayCount > format::OVERLAY_CAPACITY) continue;
    sealSlot(sealed, salt);
    setSlot(number, sealed);
  }
}

std::uint64_t ForgedFile::harmfulNumber(Dice& dice) const {
  constexpr std::uint64_t ONE = 1;
  const std::uint64_t end = slot(newestSlot()).end;
  const std::uint64_t frame = frames_.empty() ? 8 : frames_[dice.below(frames_.size())].offset;
  const std::uint64_t numbers[] = {0,
                                   1,
                                   7,
                                   8,
                                   format::LOG_START,
                                   format::LOG_START - 8,
                                   end,
                                   end - 8,
                                   end + 8,
                                   end + 4,
                                   frame,
                                   frame,
                                   frame,
                                   frame + 8,
                                   bytes_.size(),
                                   bytes_.size() * 2,
                                   0x7FFFFFFF,
                                   0xFFFFFFF8,
                                   0xFFFFFFFF,
                                   ONE << 40,
                                   (ONE << 43) - 8,
                                   (ONE << 48) - 8,
                                   ONE << 62,
                                   ONE << 63,
                                   ~ONE,
                                   ~std::uint64_t{0},
                                   dice.below(bytes_.size()),
                                   dice.below(64),
                                   dice.next()};
  return numbers[dice.below(std::size(numbers))];
}

void ForgedFile::mutateHeader(Dice& dice) {
  const std::size_t field = 8 + dice.below((sizeof(format::FileHeader) - 12) / 4) * 4;
  if (dice.below(2) == 0) {
    set(field, static_cast<std::uint32_t>(harmfulNumber(dice)));
  } else {
    set(field, harmfulNumber(dice));
  }
  setHeader(header());
}

// The slot that counts, the other one, or both in the same way.
void ForgedFile::mutateSlot(Dice& dice) {
  const std::uint64_t which = dice.below(3);
  const bool inOverlay = dice.below(3) == 0;
  const std::size_t used = std::max<std::size_t>(1, slot(newestSlot()).overlayCount) * 2;
  const std::size_t field = inOverlay ? SLOT_HEAD + dice.below(used) * 8 : 4 + dice.below((SLOT_HEAD - 4) / 2) * 2;
  const std::uint64_t number = harmfulNumber(dice);
  const std::uint64_t width = inOverlay ? 8 : std::uint64_t{2} << dice.below(3);
  const std::uint64_t lowBits = inOverlay && dice.below(2) == 0 ? dice.below(8) : 0;
  for (std::size_t slot = 0; slot < 2; ++slot) {
    if (which == 1 && slot != newestSlot()) continue;
    if (which == 2 && slot == newestSlot()) continue;
    const std::size_t at = format::SLOT_OFFSET[slot] + (field % 8 == 0 || width < 8 ? field : field / 8 * 8);
    if (width == 2) set(at, static_cast<std::uint16_t>(number));
    if (width == 4) set(at, static_cast<std::uint32_t>(number));
    if (width == 8) set(at, number | lowBits);
  }
}

void ForgedFile::mutateFrame(Dice& dice) {
  if (frames_.empty()) return;
  const Frame& frame = frames_[dice.below(frames_.size())];
  // The size, the link with kind and flags, and all that the head has behind them.
  const std::size_t field = 12 + dice.below((frame.prefixSize - 12) / 4) * 4;
  if (field % 8 == 4) return set(frame.offset + field, static_cast<std::uint32_t>(harmfulNumber(dice)));
  const std::uint64_t number = harmfulNumber(dice);
  if (field != LINK) return set(frame.offset + field, number);
  const auto link = get<std::uint64_t>(frame.offset + LINK);
  const std::uint64_t offset = number & 0xFFFFFFFFFFFF;
  const std::uint64_t changed[] = {(link >> 48 << 48) | offset, link ^ dice.below(4) << 48,
                                   (link & 0x00FFFFFFFFFFFFFF) | dice.below(8) << 56};
  set(frame.offset + LINK, changed[dice.below(3)]);
}

// The numbers in front of a record's bytes, a removal's digests, a summary's entries.
void ForgedFile::mutatePayload(Dice& dice) {
  if (frames_.empty()) return;
  const Frame& frame = frames_[dice.below(frames_.size())];
  if (frame.kind == format::FrameKind::AREA || frame.payloadSize() == 0) return;
  const std::uint64_t at = frame.offset + frame.prefixSize;
  if (!frame.isRecord()) return set(at + dice.below(frame.payloadSize() / 8) * 8, harmfulNumber(dice));
  const std::uint64_t behind = dice.below(4) == 0 ? dice.below(frame.payloadSize()) : dice.below(4);
  set(at + behind, static_cast<std::uint8_t>(dice.next()));
}

void ForgedFile::mutateBlock(Dice& dice) {
  if (blocks_.empty()) return;
  const std::uint64_t offset = blocks_[dice.below(blocks_.size())];
  auto block = get<format::Block>(offset);
  const std::uint64_t some = blocks_[dice.below(blocks_.size())];
  const auto other = get<format::Block>(some);
  switch (dice.below(4)) {
    case 0:
      block.count = static_cast<std::uint8_t>(dice.below(format::BLOCK_ENTRIES + 2));
      break;
    case 1:
      block.overflowed = static_cast<std::uint8_t>(dice.below(3));
      break;
    case 2:
      block = other;  // where its digests are not at home
      break;
    default: {
      const std::size_t entry = dice.below(std::clamp<std::size_t>(block.count, 1, format::BLOCK_ENTRIES));
      const std::uint64_t tag = block.entries[entry] >> 40 << 40;
      block.entries[entry] = dice.below(4) == 0 ? dice.next() : tag | (harmfulNumber(dice) / 8 & 0xFFFFFFFFFF);
    }
  }
  set(offset, block);
}

void ForgedFile::mutateLength(Dice& dice) {
  const std::uint64_t sizes[] = {dice.below(bytes_.size()), slot(newestSlot()).end, slot(newestSlot()).end - 8,
                                 bytes_.size() + dice.below(65536)};
  bytes_.resize(static_cast<std::size_t>(std::min<std::uint64_t>(sizes[dice.below(4)], 2 * bytes_.size() + 65536)));
}

bool ForgedFile::mutate(Dice& dice) {
  const std::uint64_t what = dice.below(16);
  if (what == 0) mutateHeader(dice);
  if (what >= 1 && what < 6) mutateSlot(dice);
  if (what >= 6 && what < 11) mutateFrame(dice);
  if (what == 11 || what == 12) mutatePayload(dice);
  if (what == 13 || what == 14) mutateBlock(dice);
  if (what == 15) mutateLength(dice);
  if (dice.below(16) != 0) seal();
  return what != 11 && what != 12 && what != 0;
}

ForgedLog::ForgedLog(const format::FileHeader& header, std::size_t indexCount)
    : header_(header),
      key_{.salt = saltOf(header.fileId), .indexCount = indexCount},
      bytes_(format::LOG_START, std::byte{0}) {
  slot_.chain = key_.salt;
}

std::uint64_t ForgedLog::append(Frame frame, std::span<const std::byte> payload) {
  frame.offset = end();
  if (frame.kind == format::FrameKind::INSERT) frame.place = frame.offset;
  frame.chain = slot_.chain;
  frame.last = true;
  appendFrame(frame, payload, key_, bytes_);
  slot_.chain = frame.crc;
  return frame.offset;
}

std::uint64_t ForgedLog::appendArea(std::uint64_t blocks) {
  Frame frame;
  frame.kind = format::FrameKind::AREA;
  const std::uint64_t head = end() + sizeof(format::FrameHeader) + sizeof(format::AreaBody);
  frame.area.blocksOffset = (head + format::BLOCK_SIZE - 1) / format::BLOCK_SIZE * format::BLOCK_SIZE;
  frame.area.blockCount = blocks;
  append(frame, {});
  bytes_.resize(frame.area.blocksOffset + blocks * format::BLOCK_SIZE);
  for (std::uint64_t block = 0; block < blocks; ++block) {
    setBlock(frame.area.blocksOffset + block * format::BLOCK_SIZE, format::Block{});
  }
  slot_.segments[segmentCount(slot_)] = packSegment(Segment{.offset = frame.area.blocksOffset, .blockCount = blocks});
  return frame.area.blocksOffset;
}

void ForgedLog::setBlock(std::uint64_t offset, format::Block block) {
  sealBlock(block, key_.salt, offset);
  std::memcpy(bytes_.data() + offset, &block, sizeof block);
}

void ForgedLog::lead(std::size_t index, std::uint64_t digest, std::uint64_t offset) {
  slot_.overlay[slot_.overlayCount++] = format::OverlayEntry{.digest = digest, .offsetAndIndex = offset | index};
}

FileBytes ForgedLog::file(std::uint64_t end) const {
  FileBytes file = bytes_;
  file.resize(file.size() + 4096);
  format::FileHeader header = header_;
  header.crc = headerChecksum(header);
  std::memcpy(file.data(), &header, sizeof header);
  std::memcpy(file.data() + format::HEADER_COPY_OFFSET, &header, sizeof header);
  for (std::uint64_t number = 0; number < 2; ++number) {
    format::Slot slot = slot_;
    slot.sequence = 2 + number;
    slot.end = end == 0 ? bytes_.size() : end;
    slot.indexedEnd = slot.end;
    sealSlot(slot, key_.salt);
    std::memcpy(file.data() + format::SLOT_OFFSET[number], &slot, sizeof slot);
  }
  return file;
}

}  // namespace zon::test
