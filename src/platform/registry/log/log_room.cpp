// The file grows in steps, in proportion to its size.
//
// The rule: what was counted by a published end is never touched here.
#include "platform/registry/log/log_room.h"

#include <algorithm>
#include <array>
#include <span>

#include "platform/registry/files/file_io.h"

namespace zon {

namespace {

constexpr std::uint64_t PAGE = 4096;
constexpr std::uint64_t LEAST_RESERVE = 8192;
constexpr std::uint64_t MOST_RESERVE = 8 << 20;
constexpr std::size_t PIECE_SIZE = 8192;

std::uint64_t wholePages(std::uint64_t size) { return (size + PAGE - 1) / PAGE * PAGE; }

std::uint64_t reserveStep(std::uint64_t size) { return std::clamp(size / 32, LEAST_RESERVE, MOST_RESERVE); }

bool isZero(std::span<const std::byte> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](std::byte byte) { return byte == std::byte{0}; });
}

}  // namespace

// With a step more than asked for, where there is room for it.
std::uint32_t LogRoom::growTo(std::uint64_t size) {
  if (size <= fileSize_) return MD_RC_OK;
  std::uint64_t target = wholePages(size + reserveStep(size));
  std::uint32_t rc = reserve(file_, fileSize_, target);
  if (isOutOfSpace(rc)) {
    target = wholePages(size);
    rc = reserve(file_, fileSize_, target);
  }
  if (rc == MD_RC_OK) fileSize_ = target;
  return rc;
}

// Nothing that counts lies behind the end: what was there was wiped and synced before this commit was written, and
// readers never look there. Whether the cut, which is not synced, outlasts a crash makes no difference.
void LogRoom::cutReserve(std::uint64_t end) {
  const std::uint64_t step = reserveStep(end);
  const std::uint64_t kept = wholePages(end + format::TERMINATOR_SIZE + REMOVAL_ROOM + step);
  if (fileSize_ <= kept + step) return;
  if (shrink(file_, kept) == MD_RC_OK) fileSize_ = kept;
}

Answer<bool> LogRoom::isZeroFrom(std::uint64_t offset) const {
  std::array<std::byte, PIECE_SIZE> piece;
  for (std::uint64_t at = offset; (at = skipHole(file_, at, fileSize_)) < fileSize_;) {
    std::size_t got = 0;
    if (const std::uint32_t rc = readAt(file_, at, piece, got)) return {.rc = rc};
    if (got == 0) break;
    if (!isZero(std::span(piece).first(got))) return {.value = false};
    at += got;
  }
  return {.value = true};
}

std::uint32_t LogRoom::wipeFrom(std::uint64_t offset) const {
  std::array<std::byte, PIECE_SIZE> piece;
  constexpr std::array<std::byte, PIECE_SIZE> ZEROS{};
  for (std::uint64_t at = offset; (at = skipHole(file_, at, fileSize_)) < fileSize_;) {
    std::size_t got = 0;
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), fileSize_ - at));
    if (const std::uint32_t rc = readAt(file_, at, std::span(piece).first(wanted), got)) return rc;
    if (got == 0) break;
    if (!isZero(std::span(piece).first(got))) {
      if (const std::uint32_t rc = writeAt(file_, at, std::span(ZEROS).first(got))) return rc;
    }
    at += got;
  }
  return MD_RC_OK;
}

}  // namespace zon
