// Counts down over operator new; see allocation_faults.h.
#include "platform/registry/harness/allocation_faults.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#include "platform/registry/files/system_calls.h"

namespace zon::test {
namespace {

bool isArmed = false;
bool isSticky = false;
bool hasFailed = false;
long long allocationsLeft = 0;
long long asked = 0;
long long live = 0;

[[gnu::noinline]] void* allocate(std::size_t size) {
  if (isArmed) ++asked;
  if (isArmed && (allocationsLeft == 0 || --allocationsLeft == 0) && (isSticky || !hasFailed)) {
    hasFailed = true;
    return nullptr;
  }
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory != nullptr) ++live;
  return memory;
}

[[gnu::noinline]] void release(void* memory) {
  if (memory != nullptr) --live;
  std::free(memory);
}

template <auto Member>
struct Shield;

template <class Result, class... Arguments, Result (*SystemCalls::*Member)(Arguments...)>
struct Shield<Member> {
  static inline Result (*inner)(Arguments...) = nullptr;
  static Result call(Arguments... arguments) {
    const Unfailing scope;
    return inner(arguments...);
  }
  static void put() {
    if (systemCalls.*Member == call) return;
    inner = systemCalls.*Member;
    systemCalls.*Member = call;
  }
};

template <auto... Members>
void shieldAll() {
  (Shield<Members>::put(), ...);
}

}  // namespace

void failAllocation(long long number, bool sticky) {
  allocationsLeft = number;
  isSticky = sticky;
  hasFailed = false;
  asked = 0;
  isArmed = true;
}

bool stopFailing() {
  isArmed = false;
  return hasFailed;
}

long long allocationsAsked() { return asked; }

long long liveAllocations() { return live; }

Unfailing::Unfailing() : wasArmed_(isArmed) { isArmed = false; }
Unfailing::~Unfailing() { isArmed = wasArmed_; }

void shieldSystemCalls() {
  shieldAll<&SystemCalls::openAt, &SystemCalls::close, &SystemCalls::duplicateFrom, &SystemCalls::pread,
            &SystemCalls::pwrite, &SystemCalls::fdatasync, &SystemCalls::fsync, &SystemCalls::fallocate,
            &SystemCalls::ftruncate, &SystemCalls::seek, &SystemCalls::flock, &SystemCalls::statx,
            &SystemCalls::renameAt, &SystemCalls::linkAt, &SystemCalls::unlinkAt, &SystemCalls::fchmod,
            &SystemCalls::fchown, &SystemCalls::getAttribute, &SystemCalls::setAttribute, &SystemCalls::removeAttribute,
            &SystemCalls::getRandom>();
}

}  // namespace zon::test

void* operator new(std::size_t size) {
  void* memory = zon::test::allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return zon::test::allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return zon::test::allocate(size); }
void operator delete(void* memory) noexcept { zon::test::release(memory); }
void operator delete[](void* memory) noexcept { zon::test::release(memory); }
void operator delete(void* memory, std::size_t) noexcept { zon::test::release(memory); }
void operator delete[](void* memory, std::size_t) noexcept { zon::test::release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { zon::test::release(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { zon::test::release(memory); }
