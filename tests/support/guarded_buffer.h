// GuardedBuffer: zero-filled memory with a page behind its last byte that nobody may touch.
//
// The rule: whoever reads or writes one byte too far ends the test's process.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <new>

namespace zontest {

class GuardedBuffer {
 public:
  explicit GuardedBuffer(std::size_t size) : size_(size) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    pages_ = (size + page - 1) / page * page;
    mapped_ = pages_ + page;
    start_ = ::mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (start_ == MAP_FAILED) throw std::bad_alloc();
    if (::mprotect(static_cast<char*>(start_) + pages_, page, PROT_NONE) != 0) throw std::bad_alloc();
  }
  ~GuardedBuffer() { ::munmap(start_, mapped_); }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  char* get() const { return static_cast<char*>(start_) + (pages_ - size_); }

 private:
  std::size_t size_;
  std::size_t pages_ = 0;
  std::size_t mapped_ = 0;
  void* start_ = nullptr;
};

}  // namespace zontest
