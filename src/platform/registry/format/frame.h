// Frames of the log: taking them apart and putting them together. What is parsed here has passed its checksum; nobody
// else reads frame bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/registry/format/format.h"

namespace zon {

// What keys the checksums of one file, so that bytes of another file, or of another place, never pass.
struct FrameKey {
  std::uint32_t salt = 0;
  std::size_t indexCount = 1;  // links per record frame, plus one
};

std::uint32_t saltOf(std::uint64_t fileId);

// The start value of a checksum over bytes at this offset of the file.
std::uint32_t checksumStart(std::uint32_t salt, std::uint64_t offset);

// What a frame's prefix tells.
struct Frame {
  std::uint64_t offset = 0;
  std::uint32_t size = 0;
  std::uint32_t prefixSize = 0;
  std::uint32_t crc = 0;
  std::uint32_t chain = 0;
  std::uint32_t payloadCrc = 0;
  format::FrameKind kind = format::FrameKind::INSERT;
  bool last = false;
  bool clean = false;
  std::uint64_t previous = 0;
  std::uint64_t place = 0;  // of the record concerned; of an INSERT frame its own offset
  std::uint64_t below = 0;
  std::array<format::Link, format::MAX_INDEXES - 1> links{};
  format::AreaBody area{};
  format::SummaryBody summary{};

  bool isRecord() const { return kind == format::FrameKind::INSERT || kind == format::FrameKind::CHANGE; }
  bool isEvent() const { return isRecord() || kind == format::FrameKind::REMOVE; }
  std::uint64_t end() const { return offset + size; }
  std::uint32_t payloadSize() const { return size - prefixSize; }
  // The next older frame in the list of an index.
  std::uint64_t previousIn(std::size_t index) const;
};

enum class ParseResult { OK, SHORT, BAD };

// Takes the prefix apart that starts at bytes[0] and lies at `offset` of the file. SHORT: more bytes are needed. A
// prefix that is OK passed its checksum, and each of its numbers is possible: its links lead down, into the log, to
// where a frame may begin; its size fits its kind. Whether it ends where the log ends is the caller's to ask.
ParseResult parseFrame(std::span<const std::byte> bytes, std::uint64_t offset, const FrameKey& key, Frame& frame);

// Appends a frame with this prefix (size, prefixSize and crc are computed and set) and payload to out.
void appendFrame(Frame& frame, std::span<const std::byte> payload, const FrameKey& key, std::vector<std::byte>& out);

// Sets FRAME_LAST in the frame whose prefix lies at `bytes`, and its checksum anew.
void markLast(std::span<std::byte> bytes, Frame& frame, const FrameKey& key);

}  // namespace zon
