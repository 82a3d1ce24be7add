// See bad_sectors.h. readAt has read twice before it gives a place up.
#include "platform/registry/files/bad_sectors.h"

#include <algorithm>
#include <array>

#include "platform/registry/files/file_io.h"

namespace zon {

namespace {

constexpr std::uint64_t SECTOR = 4096;
// Not zero, which would be taken for the end of a log.
constexpr std::byte UNREADABLE_BYTE{0xFF};

}  // namespace

std::uint32_t BadSectors::read(int file, std::uint64_t offset, std::span<std::byte> range, std::size_t& got) {
  if (bad_.empty()) {
    const std::uint32_t rc = readAt(file, offset, range, got);
    if (rc == MD_RC_OK && got != 0) goodOffset_ = offset;
    if (rc != RC_UNREADABLE) return rc;
  }
  return readBySector(file, offset, range, got);
}

std::uint32_t BadSectors::readBySector(int file, std::uint64_t offset, std::span<std::byte> range, std::size_t& got) {
  got = 0;
  const std::uint64_t left = fileSize_ > offset ? fileSize_ - offset : 0;
  range = range.first(static_cast<std::size_t>(std::min<std::uint64_t>(range.size(), left)));
  while (got < range.size()) {
    const std::uint64_t at = offset + got;
    const std::uint64_t sector = at / SECTOR;
    const auto wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>((sector + 1) * SECTOR - at, range.size() - got));
    const std::span<std::byte> piece = range.subspan(got, wanted);
    std::size_t read = 0;
    const std::uint32_t rc = bad_.contains(sector) ? RC_UNREADABLE : readAt(file, at, piece, read);
    if (rc != MD_RC_OK && rc != RC_UNREADABLE) return rc;
    if (rc == RC_UNREADABLE) {
      bad_.insert(sector);
      std::fill(piece.begin(), piece.end(), UNREADABLE_BYTE);
      read = wanted;
    } else if (read != 0) {
      goodOffset_ = at;
    }
    got += read;
    if (read < wanted) break;
  }
  return MD_RC_OK;
}

bool BadSectors::isDeviceFailing(int file) const {
  if (bad_.empty()) return false;
  const auto isReadable = [&](std::uint64_t offset) {
    std::array<std::byte, 1> byte;
    std::size_t got = 0;
    const std::uint32_t rc = readAt(file, offset, byte, got);
    // What else keeps a byte from being read has a code of its own, which comes with the next reading.
    return rc == MD_RC_OK ? got != 0 : rc != RC_UNREADABLE;
  };
  if (goodOffset_.has_value()) return !isReadable(*goodOffset_);
  return !isReadable(0) && !isReadable(fileSize_ / 2) && !isReadable(fileSize_ - 1);
}

}  // namespace zon
