// RecordBuffer: one zero-filled record of the memory service, released when it goes out of scope.
//
// The rule: whoever allocates looks at isAllocated() before anything else; a store answers GENREG_RC_NO_MEMORY without
// it.
//
//   RecordBuffer match(MAX_RECORD_SIZE<OneKeyLayout>, "MDCustomTree");
//   if (!match.isAllocated()) return GENREG_RC_NO_MEMORY;
//   return file.Delete(MATCH_KEY, match.get());
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oss/pooled_blocks.h"
#include "record/record_layout.h"
#include "zonmdfile/platform/oss.h"

namespace zon {

static_assert(MAX_RECORD_SIZE<ThreeKeyLayout> <= LARGEST_POOLED_BLOCK,
              "every call takes a record buffer or two, which the memory service must not map anew each time");

class RecordBuffer {
 public:
  static constexpr std::size_t ALL = ~std::size_t{0};

  // `source` labels the allocation; the line is the caller's. Of a record of which only the first `touched` bytes are
  // ever written, the rest need not be cleared when it is released.
  RecordBuffer(std::size_t size, const char* source, std::size_t touched = ALL, int line = __builtin_LINE())
      : source_(source), touched_(touched), line_(static_cast<std::uint32_t>(line)) {
    if (_ossMemAlloc(&record_, 0, size, 1, source_, line_) != 0) record_ = nullptr;
  }
  ~RecordBuffer() { ossMemFreeTouched(&record_, touched_, source_, line_); }
  RecordBuffer(const RecordBuffer&) = delete;
  RecordBuffer& operator=(const RecordBuffer&) = delete;

  bool isAllocated() const { return record_ != nullptr; }
  void* get() const { return record_; }

  // Only the first bytes turned out to be written.
  void setTouched(std::size_t touched) { touched_ = touched; }

  // Leaves the record allocated for good, where a store's callers have always seen it outstanding.
  void keepAllocated() { record_ = nullptr; }

 private:
  void* record_ = nullptr;
  const char* source_;
  std::size_t touched_;
  std::uint32_t line_;
};

}  // namespace zon
