// Reading a file of which the device cannot read some places.
//
// The rule: what cannot be read is answered as bytes that pass no checksum, so that all else of the file is still
// found.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>

namespace zon {

class BadSectors {
 public:
  explicit BadSectors(std::uint64_t fileSize) : fileSize_(fileSize) {}

  // As readAt. A place that was bad once is not asked again: a device may take seconds to give it up.
  [[nodiscard]] std::uint32_t read(int file, std::uint64_t offset, std::span<std::byte> range, std::size_t& got);

  // The device fails as a whole: nothing could be read, or what could be read before no longer can.
  bool isDeviceFailing(int file) const;
  bool any() const { return !bad_.empty(); }

 private:
  [[nodiscard]] std::uint32_t readBySector(int file, std::uint64_t offset, std::span<std::byte> range,
                                           std::size_t& got);

  std::uint64_t fileSize_;
  std::set<std::uint64_t> bad_;
  std::optional<std::uint64_t> goodOffset_;
};

}  // namespace zon
