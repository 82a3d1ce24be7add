// Room for one record of the largest size, from the memory service, whose zero-filled megabyte costs next to nothing.
#pragma once

#include <cstddef>

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
  ~ScratchRecord() { _ossMemFree(&memory_, 0, 0, "GenRegBin", __LINE__); }

  bool isThere() const { return memory_ != nullptr; }
  std::byte* get() const { return static_cast<std::byte*>(memory_); }

 private:
  void* memory_ = nullptr;
};

}  // namespace zon
