// The replaced functions. The rule: nothing here may allocate.
#include "support/failing_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZON_HAS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define ZON_HAS_SANITIZER 1
#endif
#endif

namespace {

struct Fault {
  std::uint64_t n;
  bool isSticky;
  std::uint64_t requests;
  bool isArmed;
};
thread_local Fault fault{};
thread_local std::int64_t live = 0;
const char* bootIdFile = nullptr;

// A call that asks this often does not end.
constexpr std::uint64_t MOST_REQUESTS = 2'000'000;

bool isRefused() {
  if (!fault.isArmed) return false;
  if (++fault.requests > MOST_REQUESTS) std::abort();
  if (fault.n == 0) return false;
  return fault.isSticky ? fault.requests >= fault.n : fault.requests == fault.n;
}

}  // namespace

namespace zontest {

FailingMemory::FailingMemory(std::uint64_t n, Kind kind) : n_(n) { fault = {n, kind == Kind::FROM_THEN_ON, 0, true}; }

void FailingMemory::disarm() {
  if (!isArmed_) return;
  isArmed_ = false;
  fault.isArmed = false;
  requests_ = fault.requests;
}

std::int64_t liveBlocks() { return live; }

bool hasSanitizer() {
#ifdef ZON_HAS_SANITIZER
  return true;
#else
  return false;
#endif
}

AnotherBoot::AnotherBoot(const char* fileWithId) { bootIdFile = fileWithId; }
AnotherBoot::~AnotherBoot() { bootIdFile = nullptr; }

}  // namespace zontest

#ifndef ZON_HAS_SANITIZER

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
  if (isRefused()) {
    errno = ENOMEM;
    return nullptr;
  }
  void* memory = __libc_malloc(size);
  live += memory != nullptr ? 1 : 0;
  return memory;
}

[[gnu::visibility("default")]] void* calloc(std::size_t count, std::size_t size) {
  if (isRefused()) {
    errno = ENOMEM;
    return nullptr;
  }
  void* memory = __libc_calloc(count, size);
  live += memory != nullptr ? 1 : 0;
  return memory;
}

[[gnu::visibility("default")]] void* realloc(void* memory, std::size_t size) {
  if (isRefused()) {
    errno = ENOMEM;
    return nullptr;
  }
  void* moved = __libc_realloc(memory, size);
  live += memory == nullptr && moved != nullptr ? 1 : 0;
  return moved;
}

[[gnu::visibility("default")]] void free(void* memory) {
  live -= memory != nullptr ? 1 : 0;
  __libc_free(memory);
}

[[gnu::visibility("default")]] void* mmap(void* address, std::size_t length, int protection, int flags, int descriptor,
                                          off_t offset) noexcept {
  if (isRefused()) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  return reinterpret_cast<void*>(::syscall(SYS_mmap, address, length, protection, flags, descriptor, offset));
}

[[gnu::visibility("default")]] void* mremap(void* address, std::size_t before, std::size_t after, int flags,
                                            ...) noexcept {
  if (isRefused()) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  return reinterpret_cast<void*>(::syscall(SYS_mremap, address, before, after, flags, nullptr));
}
}

#else

// Not inlined: where the compiler sees into one of a pair but not the other, it takes them for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* memory = isRefused() ? nullptr : std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  ++live;
  return memory;
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  void* memory = isRefused() ? nullptr : std::malloc(size != 0 ? size : 1);
  live += memory != nullptr ? 1 : 0;
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  live -= memory != nullptr ? 1 : 0;
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
  live -= memory != nullptr ? 1 : 0;
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept {
  live -= memory != nullptr ? 1 : 0;
  std::free(memory);
}

#endif

extern "C" [[gnu::visibility("default")]] int openat(int directory, const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const unsigned mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, unsigned) : 0;
  va_end(arguments);
  const bool asksForBoot = bootIdFile != nullptr && std::strstr(path, "/boot_id") != nullptr;
  return static_cast<int>(::syscall(SYS_openat, directory, asksForBoot ? bootIdFile : path, flags, mode));
}
