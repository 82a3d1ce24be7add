// The insertions of the log lie in scan order; what happened to them later is gathered first and merged in by place.
#include "platform/registry/log/log_scan.h"

#include <algorithm>

namespace zon {

namespace {

constexpr std::size_t WINDOW_SIZE = 256 * 1024;
constexpr std::size_t MOVED_WINDOW_SIZE = 64 * 1024;
constexpr std::size_t JUMP_SIZE = 4096;
// Marks the event of a removal; frames are aligned, so that no offset has the bit.
constexpr std::uint64_t REMOVED_MARK = 1;

}  // namespace

std::uint32_t LogWindow::at(std::uint64_t offset, std::size_t wanted, std::span<const std::byte>& bytes) {
  wanted = std::min(wanted, capacity_);
  const bool inside = offset >= start_ && offset + wanted <= start_ + filled_;
  if (!inside) {
    // Who goes on where the last stretch ended gets a whole window; who jumps gets little more than asked for.
    const bool goesOn = offset >= start_ && offset <= start_ + filled_ && filled_ != 0;
    const std::uint64_t left = view_.end() > offset ? view_.end() - offset : 0;
    const auto length =
        static_cast<std::size_t>(std::min<std::uint64_t>(goesOn ? capacity_ : std::max(wanted, JUMP_SIZE), left));
    if (bufferSize_ < length) {
      buffer_ = std::make_unique_for_overwrite<std::byte[]>(length);
      bufferSize_ = length;
    }
    start_ = offset;
    filled_ = 0;
    if (const std::uint32_t rc = view_.bytes().read(offset, std::span(buffer_.get(), length), filled_)) return rc;
  }
  const auto skip = static_cast<std::size_t>(offset - start_);
  bytes = std::span<const std::byte>(buffer_.get() + skip, filled_ - skip);
  return MD_RC_OK;
}

LogScan::LogScan(const LogView& view)
    : view_(view), end_(view.end()), log_(view, WINDOW_SIZE), moved_(view, MOVED_WINDOW_SIZE) {}

std::uint32_t LogScan::frameAt(LogWindow& window, std::uint64_t offset, Frame& frame,
                               std::span<const std::byte>& bytes) {
  if (const std::uint32_t rc = window.at(offset, format::MAX_PREFIX_SIZE, bytes)) return rc;
  const bool isFrame = parseFrame(bytes, offset, view_.key(), frame) == ParseResult::OK && frame.end() <= end_;
  return isFrame ? MD_RC_OK : GENREG_RC_DAMAGED;
}

std::uint32_t LogScan::collectMoves() {
  started_ = true;
  const std::uint64_t first = view_.slot().firstEvent;
  if (first == 0) return MD_RC_OK;
  Frame frame;
  std::span<const std::byte> bytes;
  for (std::uint64_t offset = first; offset < end_; offset = frame.end()) {
    if (const std::uint32_t rc = frameAt(log_, offset, frame, bytes)) return rc;
    if (!frame.isEvent() || frame.kind == format::FrameKind::INSERT) continue;
    const std::uint64_t mark = frame.kind == format::FrameKind::REMOVE ? REMOVED_MARK : 0;
    moves_.push_back(LiveRecord{.place = frame.place, .offset = offset | mark});
  }
  // Of each place the last event counts.
  std::sort(moves_.begin(), moves_.end(), [](const LiveRecord& a, const LiveRecord& b) {
    return a.place != b.place ? a.place < b.place : a.offset > b.offset;
  });
  const auto isOlder = [](const LiveRecord& newer, const LiveRecord& older) { return newer.place == older.place; };
  moves_.erase(std::unique(moves_.begin(), moves_.end(), isOlder), moves_.end());
  return MD_RC_OK;
}

bool LogScan::newestForm(std::uint64_t place, std::uint64_t& offset) {
  while (nextMove_ < moves_.size() && moves_[nextMove_].place < place) ++nextMove_;
  offset = place;
  if (nextMove_ < moves_.size() && moves_[nextMove_].place == place) offset = moves_[nextMove_].offset;
  return (offset & REMOVED_MARK) == 0;
}

std::uint32_t LogScan::nextPlace(LiveRecord& record, Frame& frame, std::span<const std::byte>& bytes) {
  if (!started_) {
    if (const std::uint32_t rc = collectMoves()) return rc;
  }
  while (cursor_ < end_) {
    const std::uint64_t offset = cursor_;
    if (const std::uint32_t rc = frameAt(log_, offset, frame, bytes)) return rc;
    cursor_ = frame.end();
    const bool isMove = frame.isEvent() && frame.kind != format::FrameKind::INSERT;
    if (isMove && (view_.slot().firstEvent == 0 || offset < view_.slot().firstEvent)) return GENREG_RC_DAMAGED;
    if (frame.kind == format::FrameKind::INSERT && newestForm(offset, record.offset)) {
      record.place = offset;
      return MD_RC_OK;
    }
  }
  return GENREG_RC_END_OF_SCAN;
}

std::uint32_t LogScan::decode(LogWindow& window, const Frame& frame, std::span<const std::byte> bytes, std::byte* out,
                              std::size_t& size) {
  if (bytes.size() < frame.size) {
    if (const std::uint32_t rc = window.at(frame.offset, frame.size, bytes)) return rc;
  }
  return view_.bytes().readRecord(frame, bytes.first(std::min<std::size_t>(bytes.size(), frame.size)), out, size);
}

std::uint32_t LogScan::next(std::byte* out, LiveRecord& record, std::size_t& size) {
  Frame frame;
  std::span<const std::byte> bytes;
  if (const std::uint32_t rc = nextPlace(record, frame, bytes)) return rc;
  if (record.offset == record.place) return decode(log_, frame, bytes, out, size);
  if (const std::uint32_t rc = frameAt(moved_, record.offset, frame, bytes)) return rc;
  if (!frame.isRecord() || frame.place != record.place) return GENREG_RC_DAMAGED;
  return decode(moved_, frame, bytes, out, size);
}

namespace {

// Shows `take` the matching records in scan order until it answers false.
template <class Take>
std::uint32_t visitMatches(const LogView& view, unsigned long flags, const void* key, std::byte* out, Take take) {
  const std::size_t index = view.type().bestIndex(flags);
  std::size_t size = 0;
  if (index == view.type().indexCount) {
    LogScan scan(view);
    for (LiveRecord record{};;) {
      const std::uint32_t rc = scan.next(out, record, size);
      if (rc == GENREG_RC_END_OF_SCAN) return MD_RC_OK;
      if (rc != MD_RC_OK) return rc;
      if (!view.type().matches(flags, key, out)) {
        wipe(view.type(), out, size);
      } else if (!take(record, size)) {
        return MD_RC_OK;
      }
    }
  }
  std::vector<LiveRecord> candidates;
  if (const std::uint32_t rc = view.lists().gather(index, view.digestOf(index, key), candidates)) return rc;
  ReadAllowance allowance = view.newAllowance();
  for (const LiveRecord& record : candidates) {
    if (const std::uint32_t rc = view.bytes().readLive(record, allowance, out, size)) return rc;
    if (!view.type().matches(flags, key, out)) {
      wipe(view.type(), out, size);
    } else if (!take(record, size)) {
      return MD_RC_OK;
    }
  }
  return MD_RC_OK;
}

}  // namespace

std::uint32_t findFirst(const LogView& view, unsigned long flags, const void* key, std::byte* out, LiveRecord& found,
                        std::size_t& size) {
  if (view.isUnique() && view.type().bestIndex(flags) == 0)
    return view.lists().findByWholeKey(flags, key, out, found, size);
  std::uint32_t result = GENREG_RC_NOT_FOUND;
  const std::uint32_t rc = visitMatches(view, flags, key, out, [&](const LiveRecord& record, std::size_t recordSize) {
    found = record;
    size = recordSize;
    result = MD_RC_OK;
    return false;
  });
  return rc != MD_RC_OK ? rc : result;
}

std::uint32_t findAll(const LogView& view, unsigned long flags, const void* key, std::byte* out,
                      std::vector<LiveRecord>& found) {
  return visitMatches(view, flags, key, out, [&](const LiveRecord& record, std::size_t) {
    found.push_back(record);
    return true;
  });
}

}  // namespace zon
