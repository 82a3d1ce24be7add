// Faults of all memory that a call takes, from the C library and from the kernel alike: the n-th request of the calling
// thread fails, or that one and all later ones.
//
// The rule: the program that includes failing_memory.cpp replaces the functions behind operator new, malloc and mmap;
// outside an armed scope they do as the system's. Under a sanitizer, which has its own malloc, operator new stands for
// it.
#pragma once

#include <cstdint>

namespace zontest {

class FailingMemory {
 public:
  enum class Kind : std::uint8_t { ONCE, FROM_THEN_ON };

  // Arms the fault; 0 lets everything succeed and only counts.
  FailingMemory(std::uint64_t n, Kind kind);
  ~FailingMemory() { disarm(); }
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;

  void disarm();

  // Requests made while armed, and whether the n-th was among them.
  std::uint64_t requests() const { return requests_; }
  bool hasFailed() const { return n_ != 0 && requests_ >= n_; }

 private:
  std::uint64_t n_;
  std::uint64_t requests_ = 0;
  bool isArmed_ = true;
};

// Blocks of malloc and its kin that the calling thread has taken and not given back, counted from the program's start.
std::int64_t liveBlocks();

// Whether this build checks every access to memory, at many times the cost.
bool hasSanitizer();

// While it lives the kernel's boot id reads as another one, as after a restart.
class AnotherBoot {
 public:
  explicit AnotherBoot(const char* fileWithId);
  ~AnotherBoot();
  AnotherBoot(const AnotherBoot&) = delete;
  AnotherBoot& operator=(const AnotherBoot&) = delete;
};

}  // namespace zontest
