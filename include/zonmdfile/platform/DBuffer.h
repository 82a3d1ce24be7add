/*
 * DBuffer (libzoncmncoll): the storage of DString. Bytes with a stored length, followed by a NUL that does not count.
 * The rule: the bytes lie in a block of the memory service, so that a finished text can be handed to its receiver
 * without being copied.
 */
#ifndef ZONMDFILE_PLATFORM_DBUFFER_H
#define ZONMDFILE_PLATFORM_DBUFFER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "zonmdfile/platform/export.h"

/*
 * An object belongs to one thread at a time. Whatever needs memory throws std::bad_alloc when there is none and leaves
 * the object as it was. Bytes that are passed in may lie in the object itself.
 */
class ZON_EXPORT DBuffer {
 public:
  /* Owns no block until the first byte comes in. */
  DBuffer() noexcept {}
  DBuffer(const char* bytes, std::size_t count) { append(bytes, count); }
  DBuffer(const DBuffer& other) { append(other.data_, other.length_); }
  DBuffer(DBuffer&& other) noexcept { swap(other); }
  DBuffer& operator=(const DBuffer& other) {
    assign(other.data_, other.length_);
    return *this;
  }
  DBuffer& operator=(DBuffer&& other) noexcept {
    DBuffer taken(static_cast<DBuffer&&>(other));
    swap(taken);
    return *this;
  }
  ~DBuffer() {
    if (data_ != nullptr) freeBlock();
  }

  /* Never null; a NUL stands behind the stored bytes. Valid until the object is changed. */
  const char* data() const noexcept { return data_ != nullptr ? data_ : ""; }
  /* In bytes. */
  std::size_t length() const noexcept { return length_; }
  /* Bytes that fit in without a further allocation; the closing NUL has its place beside them. */
  std::size_t capacity() const noexcept { return capacity_; }

  /* Adds `count` bytes at the end, in amortised constant time for each byte. `bytes` may be null when count is 0. */
  void append(const char* bytes, std::size_t count) {
    if (count > capacity_ - length_) {
      growAndAppend(bytes, count);
    } else if (count != 0 && data_ != nullptr) {  // never null here, which not every compiler sees
      std::memcpy(data_ + length_, bytes, count);
      length_ += count;
      data_[length_] = '\0';
    }
  }

  /* Replaces the stored bytes; keeps the block when they fit in. */
  void assign(const char* bytes, std::size_t count);

  /* Takes out `count` bytes from `offset` (0-based); what lies beyond the end is ignored. */
  void erase(std::size_t offset, std::size_t count) noexcept;

  /* Forgets the bytes and keeps the block. */
  void clear() noexcept {
    length_ = 0;
    if (data_ != nullptr) *data_ = '\0';
  }

  /* Makes the capacity at least `count` bytes. */
  void reserve(std::size_t count);

  /*
   * Hands the block over: length() + 1 bytes with the closing NUL, which the receiver releases with _ossMemFree. From
   * then on it is counted under the label (file, line), and this object is empty. Null when there are no bytes; null,
   * with the object as it was, when the memory service refuses (ossMemFailAt).
   */
  [[nodiscard]] char* release(const char* file, std::uint32_t line) noexcept;

  void swap(DBuffer& other) noexcept;

 private:
  void growAndAppend(const char* bytes, std::size_t count);
  void resizeBlock(std::size_t capacity);
  void freeBlock() noexcept;

  char* data_ = nullptr; /* null until there is a block */
  std::size_t length_ = 0;
  std::size_t capacity_ = 0;
  void* reserved_ = nullptr; /* room for a later release without a change of the ABI */
};

#endif
