// The storage of DString. The rule: data_ is null or a block of the memory service with room for capacity_ bytes and a
// NUL, and data_[length_] is that NUL.
#include "zonmdfile/platform/DBuffer.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

#include "zonmdfile/platform/oss.h"

namespace {

constexpr const char* SOURCE = "DBuffer";  // labels its allocations
constexpr std::size_t SMALLEST_CAPACITY = 31;
constexpr std::size_t LARGEST_CAPACITY = std::numeric_limits<std::size_t>::max() / 4;

}  // namespace

void DBuffer::resizeBlock(std::size_t capacity) {
  if (capacity > LARGEST_CAPACITY) throw std::bad_alloc();
  void* block = data_;
  // Every block begins with _ossMemAlloc: who counts its calls and those of _ossMemFree finds them in pairs.
  const int failure = block == nullptr ? _ossMemAlloc(&block, 0, capacity + 1, 1, SOURCE, __LINE__)
                                       : ossMemResize(&block, capacity + 1, SOURCE, __LINE__);
  if (failure != 0) throw std::bad_alloc();
  data_ = static_cast<char*>(block);
  data_[length_] = '\0';
  capacity_ = capacity;
}

void DBuffer::freeBlock() noexcept {
  void* block = data_;
  _ossMemFree(&block, 0, 0, SOURCE, __LINE__);
  data_ = nullptr;
  length_ = 0;
  capacity_ = 0;
}

void DBuffer::growAndAppend(const char* bytes, std::size_t count) {
  if (count > LARGEST_CAPACITY - length_) throw std::bad_alloc();
  // The bytes may be this buffer's own, and the block may move.
  const std::size_t offset =
      static_cast<std::size_t>(reinterpret_cast<std::uintptr_t>(bytes) - reinterpret_cast<std::uintptr_t>(data_));
  const bool isOwn = data_ != nullptr && offset <= length_;
  resizeBlock(std::max({length_ + count, std::min(2 * capacity_, LARGEST_CAPACITY), SMALLEST_CAPACITY}));
  append(isOwn ? data_ + offset : bytes, count);
}

void DBuffer::assign(const char* bytes, std::size_t count) {
  if (count > capacity_) {
    DBuffer replacement(bytes, count);
    swap(replacement);
  } else if (data_ != nullptr) {
    if (count != 0) std::memmove(data_, bytes, count);
    length_ = count;
    data_[length_] = '\0';
  }
}

void DBuffer::erase(std::size_t offset, std::size_t count) noexcept {
  if (offset >= length_) return;
  count = std::min(count, length_ - offset);
  const std::size_t behind = length_ - offset - count;
  std::memmove(data_ + offset, data_ + offset + count, behind + 1);
  length_ -= count;
}

void DBuffer::reserve(std::size_t count) {
  if (count > capacity_) resizeBlock(std::max(count, SMALLEST_CAPACITY));
}

char* DBuffer::release(const char* file, std::uint32_t line) noexcept {
  if (length_ == 0 || ossMemRelabel(data_, length_ + 1, file, line) != 0) return nullptr;
  length_ = 0;
  capacity_ = 0;
  return std::exchange(data_, nullptr);
}

void DBuffer::swap(DBuffer& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(length_, other.length_);
  std::swap(capacity_, other.capacity_);
  std::swap(reserved_, other.reserved_);
}
