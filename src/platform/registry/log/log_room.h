// The file's size, and the room that it keeps behind the end of the log.
//
// The rule: inserts and changes leave REMOVAL_ROOM behind what they write, so that on a full disk records can still be
// removed: the removal of a record takes at most 96 bytes, whatever its keys.
#pragma once

#include <cstdint>

#include "platform/registry/format/answer.h"
#include "platform/registry/format/format.h"

namespace zon {

constexpr std::uint64_t REMOVAL_ROOM = 8192;

inline bool isOutOfSpace(std::uint32_t rc) { return rc == GENREG_RC_NO_SPACE || rc == GENREG_RC_FILE_TOO_LARGE; }

class LogRoom {
 public:
  void begin(int file, std::uint64_t fileSize) {
    file_ = file;
    fileSize_ = fileSize;
  }

  std::uint64_t fileSize() const { return fileSize_; }

  // For a log that ends at `end`, and the zeros behind it.
  [[nodiscard]] std::uint32_t growFor(std::uint64_t end, std::uint64_t roomBehind) {
    return growTo(end + format::TERMINATOR_SIZE + roomBehind);
  }

  // Gives back what a commit that was broken off had reserved beyond what its successors need.
  void cutReserve(std::uint64_t end);

  // Removals have used half of what was left to them: the disk, or the process's limit, gives no more.
  bool isShort(std::uint64_t end) const { return fileSize_ < end + format::TERMINATOR_SIZE + REMOVAL_ROOM / 2; }

  // Zeros from offset to the end of the file.
  [[nodiscard]] std::uint32_t wipeFrom(std::uint64_t offset) const;
  Answer<bool> isZeroFrom(std::uint64_t offset) const;

 private:
  [[nodiscard]] std::uint32_t growTo(std::uint64_t size);

  int file_ = -1;
  std::uint64_t fileSize_ = 0;
};

}  // namespace zon
