// Checks before it believes: a size or an offset is used only after the prefix's checksum has passed.
#include "platform/registry/format/frame.h"

#include <cstring>

#include "platform/registry/format/crc32c.h"

namespace zon {

namespace {

constexpr std::uint64_t OFFSET_MASK = (std::uint64_t{1} << format::LINK_FLAGS_SHIFT) - 1;

template <class T>
T load(std::span<const std::byte> bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

template <class T>
void store(std::vector<std::byte>& out, const T& value) {
  const auto* bytes = reinterpret_cast<const std::byte*>(&value);
  out.insert(out.end(), bytes, bytes + sizeof value);
}

std::size_t prefixSizeOf(format::FrameKind kind, std::size_t indexCount) {
  const std::size_t links = (indexCount - 1) * sizeof(format::Link);
  switch (kind) {
    case format::FrameKind::INSERT:
      return sizeof(format::FrameHeader) + links;
    case format::FrameKind::CHANGE:
    case format::FrameKind::REMOVE:
      return sizeof(format::FrameHeader) + sizeof(format::EventBody) + links;
    case format::FrameKind::AREA:
      return sizeof(format::FrameHeader) + sizeof(format::AreaBody);
    case format::FrameKind::SUMMARY:
      return sizeof(format::FrameHeader) + sizeof(format::SummaryBody);
  }
  return 0;
}

std::uint64_t flagsOf(const Frame& frame) {
  return (frame.last ? format::FRAME_LAST : 0u) | (frame.clean ? format::FRAME_CLEAN : 0u);
}

std::uint32_t prefixChecksum(std::span<const std::byte> prefix, std::uint64_t offset, std::uint32_t salt) {
  return crc32c(checksumStart(salt, offset), prefix.data() + sizeof(std::uint32_t),
                prefix.size() - sizeof(std::uint32_t));
}

std::uint64_t roundUp(std::uint64_t value, std::uint64_t unit) { return (value + unit - 1) / unit * unit; }

// Where a frame's link may lead: to a frame before it, or nowhere.
bool isLink(std::uint64_t target, const Frame& frame) {
  return target == 0 || (target >= format::LOG_START && target < frame.offset && target % format::FRAME_ALIGNMENT == 0);
}

bool isPossibleArea(const Frame& frame) {
  return frame.area.blocksOffset == roundUp(frame.offset + frame.prefixSize, format::BLOCK_SIZE) &&
         frame.area.blockCount > 0 && frame.area.blockCount <= format::MAX_BLOCKS &&
         frame.area.blocksOffset + frame.area.blockCount * format::BLOCK_SIZE == frame.end();
}

// A summary names live records, each of which has a frame of its own before it.
bool isPossibleSummary(const Frame& frame, std::size_t indexCount) {
  return frame.payloadSize() == std::uint64_t{frame.summary.count} * sizeof(format::SummaryEntry) &&
         frame.summary.index > 0 && frame.summary.index < indexCount &&
         frame.summary.count <= (frame.offset - format::LOG_START) / format::LEAST_RECORD_FRAME;
}

bool isPossibleEvent(const Frame& frame, std::size_t indexCount) {
  for (std::size_t index = 1; index < indexCount; ++index) {
    if (!isLink(frame.previousIn(index), frame)) return false;
  }
  if (frame.kind == format::FrameKind::INSERT) return frame.payloadSize() > 0;
  if (frame.place == 0 || !isLink(frame.place, frame)) return false;
  if (!isLink(frame.below, frame) || frame.below > frame.previous) return false;
  return frame.isRecord() ? frame.payloadSize() > 0 : frame.payloadSize() == indexCount * sizeof(std::uint64_t);
}

// Whatever its checksum says, what the prefix promises must be possible. Nothing uses a prefix before this was asked.
bool isPossible(const Frame& frame, std::size_t indexCount) {
  if (frame.offset < format::LOG_START || frame.end() > format::MAX_OFFSET) return false;
  if (frame.size < frame.prefixSize || frame.size % format::FRAME_ALIGNMENT != 0) return false;
  if (!isLink(frame.previous, frame)) return false;
  if (frame.kind == format::FrameKind::AREA) return isPossibleArea(frame);
  if (frame.kind == format::FrameKind::SUMMARY) return isPossibleSummary(frame, indexCount);
  return isPossibleEvent(frame, indexCount);
}

void loadLinks(std::span<const std::byte> bytes, std::size_t at, std::size_t indexCount, Frame& frame) {
  for (std::size_t link = 0; link + 1 < indexCount; ++link, at += sizeof(format::Link)) {
    frame.links[link] = load<format::Link>(bytes, at);
  }
}

}  // namespace

std::uint32_t saltOf(std::uint64_t fileId) { return static_cast<std::uint32_t>(fileId ^ (fileId >> 32)); }

std::uint32_t checksumStart(std::uint32_t salt, std::uint64_t offset) {
  return salt ^ static_cast<std::uint32_t>(offset / format::FRAME_ALIGNMENT * format::GOLDEN_RATIO >> 32);
}

std::uint64_t Frame::previousIn(std::size_t index) const {
  if (index == 0 || kind == format::FrameKind::SUMMARY) return previous;
  return links[index - 1].previous;
}

ParseResult parseFrame(std::span<const std::byte> bytes, std::uint64_t offset, const FrameKey& key, Frame& frame) {
  if (bytes.size() < sizeof(format::FrameHeader)) return ParseResult::SHORT;
  const auto header = load<format::FrameHeader>(bytes, 0);
  const auto kind = static_cast<std::uint8_t>(header.link >> format::LINK_KIND_SHIFT);
  if (kind < static_cast<std::uint8_t>(format::FrameKind::INSERT) ||
      kind > static_cast<std::uint8_t>(format::FrameKind::SUMMARY)) {
    return ParseResult::BAD;
  }
  frame = Frame{};
  frame.kind = static_cast<format::FrameKind>(kind);
  frame.prefixSize = static_cast<std::uint32_t>(prefixSizeOf(frame.kind, key.indexCount));
  if (bytes.size() < frame.prefixSize) return ParseResult::SHORT;
  if (prefixChecksum(bytes.first(frame.prefixSize), offset, key.salt) != header.crc) return ParseResult::BAD;
  frame.offset = offset;
  frame.size = header.size;
  frame.crc = header.crc;
  frame.chain = header.chain;
  frame.payloadCrc = header.payloadCrc;
  frame.last = ((header.link >> format::LINK_FLAGS_SHIFT) & format::FRAME_LAST) != 0;
  frame.clean = ((header.link >> format::LINK_FLAGS_SHIFT) & format::FRAME_CLEAN) != 0;
  frame.previous = header.link & OFFSET_MASK;
  std::size_t at = sizeof(format::FrameHeader);
  if (frame.kind == format::FrameKind::AREA) {
    frame.area = load<format::AreaBody>(bytes, at);
  } else if (frame.kind == format::FrameKind::SUMMARY) {
    frame.summary = load<format::SummaryBody>(bytes, at);
  } else if (frame.kind == format::FrameKind::INSERT) {
    frame.place = offset;
    loadLinks(bytes, at, key.indexCount, frame);
  } else {
    const auto body = load<format::EventBody>(bytes, at);
    frame.place = body.place;
    frame.below = body.below;
    loadLinks(bytes, at + sizeof body, key.indexCount, frame);
  }
  return isPossible(frame, key.indexCount) ? ParseResult::OK : ParseResult::BAD;
}

void appendFrame(Frame& frame, std::span<const std::byte> payload, const FrameKey& key, std::vector<std::byte>& out) {
  const std::size_t start = out.size();
  frame.prefixSize = static_cast<std::uint32_t>(prefixSizeOf(frame.kind, key.indexCount));
  if (frame.kind == format::FrameKind::AREA) {
    frame.size =
        static_cast<std::uint32_t>(frame.area.blocksOffset + frame.area.blockCount * format::BLOCK_SIZE - frame.offset);
    frame.payloadCrc = 0;
  } else {
    const std::size_t unpadded = frame.prefixSize + payload.size();
    frame.size = static_cast<std::uint32_t>((unpadded + format::FRAME_ALIGNMENT - 1) / format::FRAME_ALIGNMENT *
                                            format::FRAME_ALIGNMENT);
    const std::array<std::byte, format::FRAME_ALIGNMENT> padding{};
    frame.payloadCrc = crc32c(crc32c(0, payload.data(), payload.size()), padding.data(), frame.size - unpadded);
  }
  store(out, format::FrameHeader{.crc = 0,
                                 .chain = frame.chain,
                                 .payloadCrc = frame.payloadCrc,
                                 .size = frame.size,
                                 .link = static_cast<std::uint64_t>(frame.kind) << format::LINK_KIND_SHIFT |
                                         flagsOf(frame) << format::LINK_FLAGS_SHIFT | frame.previous});
  if (frame.kind == format::FrameKind::AREA) store(out, frame.area);
  if (frame.kind == format::FrameKind::SUMMARY) store(out, frame.summary);
  if (frame.kind == format::FrameKind::CHANGE || frame.kind == format::FrameKind::REMOVE) {
    store(out, format::EventBody{.place = frame.place, .below = frame.below});
  }
  if (frame.isEvent()) {
    for (std::size_t link = 0; link + 1 < key.indexCount; ++link) store(out, frame.links[link]);
  }
  frame.crc = prefixChecksum(std::span(out).subspan(start, frame.prefixSize), frame.offset, key.salt);
  std::memcpy(out.data() + start, &frame.crc, sizeof frame.crc);
  if (frame.kind == format::FrameKind::AREA) return;
  out.insert(out.end(), payload.begin(), payload.end());
  out.resize(start + frame.size);
}

void markLast(std::span<std::byte> bytes, Frame& frame, const FrameKey& key) {
  auto header = load<format::FrameHeader>(bytes, 0);
  header.link |= std::uint64_t{format::FRAME_LAST} << format::LINK_FLAGS_SHIFT;
  std::memcpy(bytes.data(), &header, sizeof header);
  frame.last = true;
  frame.crc = prefixChecksum(bytes.first(frame.prefixSize), frame.offset, key.salt);
  std::memcpy(bytes.data(), &frame.crc, sizeof frame.crc);
}

}  // namespace zon
