// Checks a stretch of the log while it streams by: every frame's checksums, and that each follows the one before. Index
// blocks are not looked at: whoever needs them writes new ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/registry/format/frame.h"

namespace zon {

class FrameChecker {
 public:
  // The stretch starts with the frame at `offset`; `chain` is the checksum of the frame before.
  FrameChecker(const FrameKey& key, std::uint64_t offset, std::uint32_t chain)
      : key_(key), offset_(offset), chain_(chain) {}

  // The next bytes; false when they are damaged.
  bool feed(std::span<const std::byte> bytes);

  // What was fed ends with a frame, and that frame has this checksum.
  bool endsWith(std::uint32_t chain) const { return payloadLeft_ == 0 && prefixStart_.empty() && chain_ == chain; }

 private:
  bool takePrefix(std::span<const std::byte>& bytes);
  bool takePayload(std::span<const std::byte>& bytes);

  FrameKey key_;
  std::uint64_t offset_;
  std::uint32_t chain_;
  Frame frame_;
  std::vector<std::byte> prefixStart_;  // of a prefix that goes on in the next bytes
  std::uint64_t payloadLeft_ = 0;
  std::uint32_t payloadCrc_ = 0;
};

}  // namespace zon
