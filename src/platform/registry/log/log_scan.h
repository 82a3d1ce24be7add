// A pass over all live records of a view in scan order: one sequential reading of the log, and one more of its part
// behind the first change or removal, if there was any. Memory: two windows, and 16 bytes for each record changed or
// removed since the file was last written anew.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "platform/registry/log/log_view.h"

namespace zon {

// A stretch of the log in memory, moved on as it is read.
class LogWindow {
 public:
  LogWindow(const LogView& view, std::size_t capacity) : view_(view), capacity_(capacity) {}

  // Answers the bytes from offset on: at least `wanted`, if the log and the window's capacity have them.
  [[nodiscard]] std::uint32_t at(std::uint64_t offset, std::size_t wanted, std::span<const std::byte>& bytes);

 private:
  const LogView& view_;
  std::size_t capacity_;
  std::unique_ptr<std::byte[]> buffer_;  // not cleared: only what was read is looked at
  std::size_t bufferSize_ = 0;
  std::uint64_t start_ = 0;
  std::size_t filled_ = 0;
};

class LogScan {
 public:
  explicit LogScan(const LogView& view);

  // The next live record, copied to out (of the record type's maximum size). GENREG_RC_END_OF_SCAN after the last.
  [[nodiscard]] std::uint32_t next(std::byte* out, LiveRecord& record, std::size_t& size);

 private:
  // Where the next live record lies, and what the log has from its insertion on.
  [[nodiscard]] std::uint32_t nextPlace(LiveRecord& record, Frame& frame, std::span<const std::byte>& bytes);
  [[nodiscard]] std::uint32_t collectMoves();
  // Whether the record inserted at a place still lives, and where its newest form lies.
  bool newestForm(std::uint64_t place, std::uint64_t& offset);
  [[nodiscard]] std::uint32_t frameAt(LogWindow& window, std::uint64_t offset, Frame& frame,
                                      std::span<const std::byte>& bytes);
  [[nodiscard]] std::uint32_t decode(LogWindow& window, const Frame& frame, std::span<const std::byte> bytes,
                                     std::byte* out, std::size_t& size);

  const LogView& view_;
  std::uint64_t end_;
  std::uint64_t cursor_ = format::LOG_START;
  LogWindow log_;
  LogWindow moved_;
  bool started_ = false;
  // The newest event of each place that has one; a removal's offset is marked.
  std::vector<LiveRecord> moves_;
  std::size_t nextMove_ = 0;
};

// The first live record in scan order that matches `key` under flags, copied to out. GENREG_RC_NOT_FOUND without one.
[[nodiscard]] std::uint32_t findFirst(const LogView& view, unsigned long flags, const void* key, std::byte* out,
                                      LiveRecord& found, std::size_t& size);

// All live records that match, in scan order. `out` is room for one record.
[[nodiscard]] std::uint32_t findAll(const LogView& view, unsigned long flags, const void* key, std::byte* out,
                                    std::vector<LiveRecord>& found);

}  // namespace zon
