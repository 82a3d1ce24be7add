// Reads in pieces of bounded size, whatever the length that a frame tells.
//
// The rule: as log_bytes.h says; every loop goes up to a known end.
#include "platform/registry/log/log_bytes.h"

#include <algorithm>

#include "platform/registry/files/file_io.h"
#include "platform/registry/format/crc32c.h"
#include "platform/registry/format/zero_runs.h"
#include "platform/registry/log/index_blocks.h"

namespace zon {

namespace {

constexpr std::size_t PIECE_SIZE = 16384;

bool isFrameOffset(std::uint64_t offset, std::uint64_t end) {
  return offset >= format::LOG_START && offset < end && offset % format::FRAME_ALIGNMENT == 0;
}

// So much of a frame's payload was read together with its prefix.
std::span<const std::byte> payloadIn(std::span<const std::byte> first, const Frame& frame) {
  const std::span<const std::byte> payload = first.subspan(frame.prefixSize);
  return payload.first(std::min<std::size_t>(payload.size(), frame.payloadSize()));
}

}  // namespace

void LogBytes::open(int file, std::uint64_t fileId, BadSectors* badSectors) {
  file_ = file;
  key_ = FrameKey{.salt = saltOf(fileId), .indexCount = type_.indexCount};
  badSectors_ = badSectors;
  tail_.clear();
  tailStart_ = format::MAX_OFFSET;
}

std::uint32_t LogBytes::read(std::uint64_t offset, std::span<std::byte> range, std::size_t& got) const {
  got = 0;
  if (offset < tailStart_) {
    const auto inFile = static_cast<std::size_t>(std::min<std::uint64_t>(range.size(), tailStart_ - offset));
    const std::uint32_t rc = badSectors_ == nullptr ? readAt(file_, offset, range.first(inFile), got)
                                                    : badSectors_->read(file_, offset, range.first(inFile), got);
    if (rc != MD_RC_OK) return rc;
    if (got < inFile) return MD_RC_OK;
  }
  if (got == range.size()) return MD_RC_OK;
  const std::uint64_t at = offset + got - tailStart_;
  if (at >= tail_.size()) return MD_RC_OK;
  const std::size_t count = std::min(range.size() - got, tail_.size() - static_cast<std::size_t>(at));
  std::memcpy(range.data() + got, tail_.data() + at, count);
  got += count;
  return MD_RC_OK;
}

template <class Take>
std::uint32_t LogBytes::readPieces(std::uint64_t from, std::uint64_t to, Take take) const {
  std::array<std::byte, PIECE_SIZE> piece;
  while (from < to) {
    const auto bytes = std::span(piece).first(static_cast<std::size_t>(std::min<std::uint64_t>(PIECE_SIZE, to - from)));
    std::size_t got = 0;
    if (const std::uint32_t rc = read(from, bytes, got)) return rc;
    if (got < bytes.size() || !take(std::span<const std::byte>(bytes))) return GENREG_RC_DAMAGED;
    from += got;
  }
  return MD_RC_OK;
}

std::uint32_t LogBytes::readFrame(std::uint64_t offset, FrameBytes& bytes, Frame& frame) const {
  if (const std::uint32_t rc = read(offset, bytes.bytes, bytes.got)) return rc;
  return parseFrame(bytes.all(), offset, key_, frame) == ParseResult::OK ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogBytes::readFrameBelow(std::uint64_t offset, std::uint64_t above, FrameBytes& bytes,
                                       Frame& frame) const {
  if (const std::uint32_t rc = readFrame(offset, bytes, frame)) return rc;
  return frame.end() <= above ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogBytes::readRecord(const Frame& frame, std::span<const std::byte> first, std::byte* out,
                                   std::size_t& size) const {
  if (!frame.isRecord()) return GENREG_RC_DAMAGED;
  ZeroRunDecoder decoder(std::span(out, type_.maxSize), RECORD_ROOM);
  const std::span<const std::byte> payload = payloadIn(first, frame);
  const auto takes = [&decoder](std::span<const std::byte> bytes) {
    return decoder.feed(bytes) && decoder.padding() < format::FRAME_ALIGNMENT;
  };
  if (!takes(payload)) return GENREG_RC_DAMAGED;
  std::uint32_t crc = crc32c(0, payload.data(), payload.size());
  const std::uint64_t at = frame.offset + frame.prefixSize + payload.size();
  if (at < frame.end()) {
    const std::uint32_t rc = readPieces(at, frame.end(), [&](std::span<const std::byte> piece) {
      crc = crc32c(crc, piece.data(), piece.size());
      return takes(piece);
    });
    if (rc != MD_RC_OK) return rc;
  }
  size = decoder.size();
  if (!decoder.finished() || crc != frame.payloadCrc) return GENREG_RC_DAMAGED;
  return type_.sizeOf(out) == size ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogBytes::readRecord(std::uint64_t offset, std::byte* out, std::size_t& size) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = readFrame(offset, bytes, frame)) return rc;
  return readRecord(frame, bytes.all(), out, size);
}

std::uint32_t LogBytes::readLive(const LiveRecord& record, ReadAllowance& allowance, std::byte* out,
                                 std::size_t& size) const {
  FrameBytes bytes;
  Frame frame;
  if (const std::uint32_t rc = readFrame(record.offset, bytes, frame)) return rc;
  if (!frame.isRecord() || frame.place != record.place) return GENREG_RC_DAMAGED;
  if (const std::uint32_t rc = allowance.charge(frame)) return rc;
  return readRecord(frame, bytes.all(), out, size);
}

std::uint32_t LogBytes::readRemovedDigests(const Frame& frame, std::span<const std::byte> first,
                                           Digests& digests) const {
  const std::size_t size = type_.indexCount * sizeof(std::uint64_t);
  if (frame.payloadSize() != size || first.size() < frame.prefixSize + size) return GENREG_RC_DAMAGED;
  const std::span<const std::byte> payload = first.subspan(frame.prefixSize, size);
  if (crc32c(0, payload.data(), payload.size()) != frame.payloadCrc) return GENREG_RC_DAMAGED;
  std::memcpy(digests.data(), payload.data(), size);
  return MD_RC_OK;
}

// Each entry is of another record, in the order of their places, and leads to a frame before the summary.
std::uint32_t LogBytes::readSummary(const Frame& frame, std::vector<LiveRecord>& live) const {
  static_assert(sizeof(LiveRecord) == sizeof(format::SummaryEntry) && PIECE_SIZE % sizeof(LiveRecord) == 0);
  std::uint32_t crc = 0;
  std::uint64_t place = 0;
  const auto takeAll = [&](std::span<const std::byte> piece) {
    crc = crc32c(crc, piece.data(), piece.size());
    for (; !piece.empty(); piece = piece.subspan(sizeof(LiveRecord))) {
      LiveRecord entry;
      std::memcpy(&entry, piece.data(), sizeof entry);
      const bool isPossible = entry.place > place && entry.place <= entry.offset &&
                              isFrameOffset(entry.place, frame.offset) && isFrameOffset(entry.offset, frame.offset);
      if (!isPossible) return false;
      place = entry.place;
      live.push_back(entry);
    }
    return true;
  };
  if (const std::uint32_t rc = readPieces(frame.offset + frame.prefixSize, frame.end(), takeAll)) return rc;
  return crc == frame.payloadCrc ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogBytes::verifyPayload(const Frame& frame, std::span<const std::byte> first) const {
  if (frame.kind == format::FrameKind::AREA) return verifyBlocks(frame.area);
  const std::span<const std::byte> payload = payloadIn(first, frame);
  std::uint32_t crc = crc32c(0, payload.data(), payload.size());
  const std::uint64_t at = frame.offset + frame.prefixSize + payload.size();
  const std::uint32_t rc = readPieces(at, frame.end(), [&crc](std::span<const std::byte> piece) {
    crc = crc32c(crc, piece.data(), piece.size());
    return true;
  });
  if (rc != MD_RC_OK) return rc;
  return crc == frame.payloadCrc ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogBytes::verifyBlocks(const format::AreaBody& area) const {
  for (std::uint64_t at = 0; at < area.blockCount; ++at) {
    format::Block block;
    if (const std::uint32_t rc = readBlock(file_, key_.salt, area.blocksOffset + at * format::BLOCK_SIZE, block))
      return rc;
  }
  return MD_RC_OK;
}

void LogBytes::beginTail(std::uint64_t offset) {
  tail_.clear();
  tailStart_ = offset;
}

std::vector<std::byte>& LogBytes::tailUpTo(std::uint64_t end) {
  tail_.resize(static_cast<std::size_t>(end - tailStart_));
  return tail_;
}

std::span<std::byte> LogBytes::tailFrom(std::uint64_t offset) {
  return std::span(tail_).subspan(static_cast<std::size_t>(offset - tailStart_));
}

std::uint32_t LogBytes::writeTail(std::uint64_t end, std::uint64_t zerosTo) {
  tailUpTo(end).resize(static_cast<std::size_t>(zerosTo - tailStart_));
  return writeAt(file_, tailStart_, tail_);
}

}  // namespace zon
