// The bytes of one log: those in its file and, for writers, the tail behind them that waits in memory.
//
// The rule: a frame or a record that is answered here has passed its checksum, and its numbers are possible.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "platform/registry/files/bad_sectors.h"
#include "platform/registry/format/frame.h"
#include "platform/registry/format/record_type.h"
#include "platform/registry/log/read_allowance.h"

namespace zon {

// The first bytes of a frame, read in one go: all of it for most records.
struct FrameBytes {
  std::array<std::byte, 1024> bytes;
  std::size_t got = 0;

  std::span<const std::byte> all() const { return std::span(bytes).first(got); }
};

// Where the newest form of the record at a place lies.
struct LiveRecord {
  std::uint64_t place;
  std::uint64_t offset;
};

// Of one record, by index.
using Digests = std::array<std::uint64_t, format::MAX_INDEXES>;

class LogBytes {
 public:
  explicit LogBytes(const RecordType& type) : type_(type) {}
  LogBytes(const LogBytes&) = delete;
  LogBytes& operator=(const LogBytes&) = delete;

  // The descriptor stays the caller's and must outlive this object; so must what reads around its bad sectors, without
  // which one fails the read.
  void open(int file, std::uint64_t fileId, BadSectors* badSectors = nullptr);

  const RecordType& type() const { return type_; }
  int file() const { return file_; }
  const FrameKey& key() const { return key_; }

  // Bytes of the log, written to the file or not; fewer than asked for at its end.
  [[nodiscard]] std::uint32_t read(std::uint64_t offset, std::span<std::byte> range, std::size_t& got) const;

  // Reads the prefix of the frame at offset, and as many bytes behind it as there is room for.
  [[nodiscard]] std::uint32_t readFrame(std::uint64_t offset, FrameBytes& bytes, Frame& frame) const;
  // The same of a frame that a list leads to, which ends at or before `above`, the frame that led there.
  [[nodiscard]] std::uint32_t readFrameBelow(std::uint64_t offset, std::uint64_t above, FrameBytes& bytes,
                                             Frame& frame) const;

  // Copies the record of a frame to out, which holds type().maxSize bytes; size tells its true size.
  [[nodiscard]] std::uint32_t readRecord(const Frame& frame, std::span<const std::byte> first, std::byte* out,
                                         std::size_t& size) const;
  [[nodiscard]] std::uint32_t readRecord(std::uint64_t offset, std::byte* out, std::size_t& size) const;
  // The same of a record that an index offered: one of many, or of those that a summary names.
  [[nodiscard]] std::uint32_t readLive(const LiveRecord& record, ReadAllowance& allowance, std::byte* out,
                                       std::size_t& size) const;

  // What a REMOVE frame tells of the record that is gone.
  [[nodiscard]] std::uint32_t readRemovedDigests(const Frame& frame, std::span<const std::byte> first,
                                                 Digests& digests) const;

  // Appends the live records that a SUMMARY frame names.
  [[nodiscard]] std::uint32_t readSummary(const Frame& frame, std::vector<LiveRecord>& live) const;

  // Reads what follows a frame's prefix, index blocks included, only to check it.
  [[nodiscard]] std::uint32_t verifyPayload(const Frame& frame, std::span<const std::byte> first) const;
  [[nodiscard]] std::uint32_t verifyBlocks(const format::AreaBody& area) const;

  // ---- The tail, which begins where what is in the file ends.

  // Drops what waits; the next frame goes to `offset`.
  void beginTail(std::uint64_t offset);
  // Where frames that end at `end` are appended to: what a failed attempt left behind them is dropped.
  std::vector<std::byte>& tailUpTo(std::uint64_t end);
  std::span<std::byte> tailFrom(std::uint64_t offset);
  std::uint64_t tailStart() const { return tailStart_; }
  std::size_t tailSize() const { return tail_.size(); }
  // What another log of the same file has waiting.
  void copyTail(const LogBytes& other) {
    tail_ = other.tail_;
    tailStart_ = other.tailStart_;
  }
  // Puts the tail, which ends at `end`, into the file, with zeros behind it up to `zerosTo`.
  [[nodiscard]] std::uint32_t writeTail(std::uint64_t end, std::uint64_t zerosTo);

 private:
  // Hands the bytes of [from, to) to `take` in pieces, until it answers false: GENREG_RC_DAMAGED, as where some are
  // missing.
  template <class Take>
  [[nodiscard]] std::uint32_t readPieces(std::uint64_t from, std::uint64_t to, Take take) const;

  const RecordType& type_;
  int file_ = -1;
  FrameKey key_;
  BadSectors* badSectors_ = nullptr;
  std::vector<std::byte> tail_;
  std::uint64_t tailStart_ = format::MAX_OFFSET;
};

// Of a record that was not wanted after all, nothing stays in the caller's buffer.
inline void wipe(const RecordType& type, std::byte* out, std::size_t size) {
  std::memset(out, 0, std::min(size, type.maxSize));
}

}  // namespace zon
