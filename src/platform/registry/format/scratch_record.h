// Room for one record of the largest size, from the memory service, whose zero-filled megabyte costs next to nothing.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "platform/registry/format/record_type.h"
#include "zonmdfile/platform/oss.h"

namespace zon {

class ScratchRecord {
 public:
  // A record that is longer than the largest size ends in zeros, which are there and are never written.
  explicit ScratchRecord(std::size_t largest) {
    if (_ossMemAlloc(&memory_, 0, largest + RECORD_ROOM, 1, "GenRegBin", __LINE__) != 0) memory_ = nullptr;
  }
  ScratchRecord(const ScratchRecord&) = delete;
  ScratchRecord& operator=(const ScratchRecord&) = delete;
  ~ScratchRecord() {
    ossMemNoteTouched(memory_, touched_);
    _ossMemFree(&memory_, 0, 0, "GenRegBin", __LINE__);
  }

  bool isThere() const { return memory_ != nullptr; }
  const std::byte* get() const { return static_cast<const std::byte*>(memory_); }

  // For whoever may write anywhere in it.
  std::byte* forWriting() {
    touched_ = EVERYTHING;
    return static_cast<std::byte*>(memory_);
  }

  // For `find(out)`, which writes nothing but the first `size` bytes when it answers 0, and nothing that stays when it
  // answers GENREG_RC_NOT_FOUND: the rest need not be cleared for the next user of the memory.
  template <class Find>
  [[nodiscard]] std::uint32_t fill(std::size_t& size, Find find) {
    const std::uint64_t before = touched_;
    const std::uint32_t rc = find(forWriting());
    if (rc == MD_RC_OK) touched_ = std::max<std::uint64_t>(before, size);
    if (rc == GENREG_RC_NOT_FOUND) touched_ = before;
    return rc;
  }

 private:
  static constexpr std::uint64_t EVERYTHING = std::numeric_limits<std::uint64_t>::max();

  void* memory_ = nullptr;
  std::uint64_t touched_ = 0;
};

}  // namespace zon
