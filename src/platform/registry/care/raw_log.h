// A log read without its slots and index, up to the end of the file.
//
// The rule: every frame has passed its checksums before anybody gets to know of it. A place that cannot be read is one
// that fails them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/registry/files/bad_sectors.h"
#include "platform/registry/log/log_view.h"

namespace zon {

class RawLog {
 public:
  RawLog(const RecordType& type, int file, const format::FileHeader& header, std::uint64_t size);

  // What the writer whose view this is has not put into the file yet is read from its memory.
  void goOnWith(const LogView& view);

  int file() const { return bytes_.file(); }
  // Of the file, as nothing tells where the log ends.
  std::uint64_t end() const { return end_; }
  const LogBytes& bytes() const { return bytes_; }

  // The frame at offset, whose payload has been checked, its record decoded.
  bool hasFrame(std::uint64_t offset, Frame& frame) const;

  // The first offset in [from, limit) where a frame seems to begin; limit when there is none. For rising
  // offsets.
  std::uint64_t findFrame(std::uint64_t from, std::uint64_t limit);

  // What kept bytes from being read, damage aside.
  std::uint32_t failure() const { return failure_; }
  // Some places cannot be read, and the device no longer gives what it gave before, or never gave anything.
  bool isDeviceFailing() const { return bad_.isDeviceFailing(file()); }

 private:
  bool noteFailure(std::uint32_t rc) const;
  bool mayRead(const Frame& frame) const;

  mutable BadSectors bad_;
  LogBytes bytes_;
  std::uint64_t end_;
  mutable std::uint32_t failure_ = MD_RC_OK;
  mutable std::vector<std::byte> record_;
  mutable std::uint64_t readInVain_ = 0;
  std::vector<std::byte> window_;
  std::uint64_t windowStart_ = 0;
  std::size_t windowSize_ = 0;
};

}  // namespace zon
