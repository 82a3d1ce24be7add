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
  // `source` labels the allocation; the line is the caller's.
  RecordBuffer(std::size_t size, const char* source, int line = __builtin_LINE())
      : source_(source), line_(static_cast<std::uint32_t>(line)) {
    if (_ossMemAlloc(&record_, 0, size, 1, source_, line_) != 0) record_ = nullptr;
  }
  ~RecordBuffer() { _ossMemFree(&record_, 0, 0, source_, line_); }
  RecordBuffer(const RecordBuffer&) = delete;
  RecordBuffer& operator=(const RecordBuffer&) = delete;

  bool isAllocated() const { return record_ != nullptr; }
  void* get() const { return record_; }

  // Nothing but the first bytes is ever written: the rest need not be cleared when the record is released.
  void setTouched(std::size_t touched) { ossMemNoteTouched(record_, touched); }

  // Leaves the record allocated for good, where a store's callers have always seen it outstanding.
  void keepAllocated() { record_ = nullptr; }

 private:
  void* record_ = nullptr;
  const char* source_;
  std::uint32_t line_;
};

}  // namespace zon
