// See frame_checker.h.
#include "platform/registry/format/frame_checker.h"

#include <algorithm>

#include "platform/registry/format/crc32c.h"

namespace zon {

bool FrameChecker::feed(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const bool isSound = payloadLeft_ != 0 ? takePayload(bytes) : takePrefix(bytes);
    if (!isSound) return false;
  }
  return true;
}

bool FrameChecker::takePrefix(std::span<const std::byte>& bytes) {
  const std::size_t known = prefixStart_.size();
  const std::size_t room = std::min(bytes.size(), format::MAX_PREFIX_SIZE - known);
  std::span<const std::byte> prefix = bytes;
  if (known != 0) {
    prefixStart_.insert(prefixStart_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(room));
    prefix = prefixStart_;
  }
  const ParseResult result = parseFrame(prefix, offset_, key_, frame_);
  if (result == ParseResult::BAD) return false;
  if (result == ParseResult::SHORT) {
    if (prefix.size() >= format::MAX_PREFIX_SIZE) return false;
    if (known == 0) prefixStart_.assign(bytes.begin(), bytes.end());
    bytes = {};
    return true;
  }
  if (frame_.chain != chain_) return false;
  bytes = bytes.subspan(frame_.prefixSize - known);
  prefixStart_.clear();
  chain_ = frame_.crc;
  offset_ = frame_.end();
  payloadLeft_ = frame_.payloadSize();
  payloadCrc_ = 0;
  return payloadLeft_ != 0 || frame_.kind == format::FrameKind::AREA || payloadCrc_ == frame_.payloadCrc;
}

bool FrameChecker::takePayload(std::span<const std::byte>& bytes) {
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(payloadLeft_, bytes.size()));
  const bool hasChecksum = frame_.kind != format::FrameKind::AREA;
  if (hasChecksum) payloadCrc_ = crc32c(payloadCrc_, bytes.data(), count);
  payloadLeft_ -= count;
  bytes = bytes.subspan(count);
  return payloadLeft_ != 0 || !hasChecksum || payloadCrc_ == frame_.payloadCrc;
}

}  // namespace zon
