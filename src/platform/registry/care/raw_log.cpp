// See raw_log.h.
#include "platform/registry/care/raw_log.h"

#include <algorithm>
#include <span>

#include "platform/registry/files/file_io.h"

namespace zon {

namespace {

constexpr std::size_t SEARCH_WINDOW = 256 * 1024;
// Damaged frames lie side by side, so that reading them all in vain reads the file once. Where that is long exceeded,
// frames were forged to lie in each other: from then on only short frames are looked for.
constexpr std::uint64_t MOST_READS_IN_VAIN = 4;
constexpr std::uint32_t SHORT_FRAME = 1024;
constexpr std::size_t KIND_OFFSET = sizeof(format::FrameHeader) - 1;

}  // namespace

RawLog::RawLog(const RecordType& type, int file, const format::FileHeader& header, std::uint64_t size)
    : bad_(size), bytes_(type), end_(size) {
  bytes_.open(file, header.fileId, &bad_);
}

void RawLog::goOnWith(const LogView& view) {
  if (view.bytes().tailSize() == 0) return;
  bytes_.copyTail(view.bytes());
  end_ = std::max(end_, view.end());
}

bool RawLog::hasFrame(std::uint64_t offset, Frame& frame) const {
  if (offset + sizeof(format::FrameHeader) > end_) return false;
  FrameBytes bytes;
  if (noteFailure(bytes_.readFrame(offset, bytes, frame)) || frame.end() > end_) return false;
  if (frame.kind == format::FrameKind::AREA) return true;
  if (!mayRead(frame)) return false;
  bool isIntact = false;
  if (frame.isRecord()) {
    // Whatever its checksum says, a record that cannot be read is none.
    record_.resize(bytes_.type().maxSize);
    std::size_t size = 0;
    isIntact = !noteFailure(bytes_.readRecord(frame, bytes.all(), record_.data(), size));
  } else {
    isIntact = !noteFailure(bytes_.verifyPayload(frame, bytes.all()));
  }
  if (!isIntact) readInVain_ += frame.size;
  return isIntact;
}

bool RawLog::mayRead(const Frame& frame) const {
  return frame.size <= SHORT_FRAME || readInVain_ <= end_ * MOST_READS_IN_VAIN;
}

bool RawLog::noteFailure(std::uint32_t rc) const {
  if (rc != MD_RC_OK && rc != GENREG_RC_DAMAGED) failure_ = rc;
  return rc != MD_RC_OK;
}

std::uint64_t RawLog::findFrame(std::uint64_t from, std::uint64_t limit) {
  limit = std::min(limit, end_);
  Frame frame;
  for (std::uint64_t at = from; at + sizeof(format::FrameHeader) <= limit; at += format::FRAME_ALIGNMENT) {
    if (at < windowStart_ || at + format::MAX_PREFIX_SIZE > windowStart_ + windowSize_) {
      if (at < bytes_.tailStart()) {
        at = skipHole(file(), at, std::min(limit, bytes_.tailStart())) / format::FRAME_ALIGNMENT *
             format::FRAME_ALIGNMENT;
      }
      window_.resize(SEARCH_WINDOW);
      windowStart_ = at;
      if (noteFailure(bytes_.read(at, window_, windowSize_)) || at >= limit) return limit;
    }
    const auto bytes = std::span<const std::byte>(window_).first(windowSize_).subspan(at - windowStart_);
    const bool mayBeFrame = bytes.size() > KIND_OFFSET && bytes[KIND_OFFSET] != std::byte{0};
    if (mayBeFrame && parseFrame(bytes, at, bytes_.key(), frame) == ParseResult::OK) return at;
  }
  return limit;
}

}  // namespace zon
