// The ring file: what a traced process leaves for zontrace, byte for byte. docs/trace.md tells the same in words.
//
// The rule: this is a file format. Little-endian, no padding; a change of any offset or meaning is a new
// FORMAT_VERSION.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zon::trace_ring {

inline constexpr char MAGIC[8] = {'Z', 'O', 'N', 'R', 'I', 'N', 'G', '\n'};
inline constexpr std::uint32_t FORMAT_VERSION = 1;
inline constexpr std::size_t HEADER_BYTES = 4096;
inline constexpr std::size_t SLOT_BYTES = 64;
inline constexpr std::uint64_t MIN_EVENT_BYTES = 64 * 1024;
inline constexpr std::uint64_t MAX_EVENT_BYTES = std::uint64_t{1} << 30;
inline constexpr std::uint64_t DEFAULT_EVENT_BYTES = 4 * 1024 * 1024;

inline constexpr std::uint32_t HEADER_HAS_VALUES = 1;  // Header::flags: values were recorded at some time

// Only the process that made the ring writes it. next, events and dropped have a cache line of their own.
struct Header {
  char magic[8];
  std::uint32_t version;
  std::uint32_t headerBytes;
  std::uint32_t slotBytes;
  std::uint32_t flags;
  std::uint64_t slots;          // a power of two
  std::uint64_t pid;            // of the recorded process
  std::uint64_t monotonicTime;  // CLOCK_MONOTONIC in ns at the moment ...
  std::uint64_t wallTime;       // ... when CLOCK_REALTIME was this, in ns since 1970
  char program[72];             // path of the executable, its tail when too long, NUL-terminated
  std::uint64_t next;           // slots given out since the ring was made; slot n lies at n modulo slots
  std::uint64_t events;         // events begun since then
  std::uint64_t dropped;        // of these, not recorded because their slot was still being written
  std::uint8_t reserved[HEADER_BYTES - 152];
};
static_assert(offsetof(Header, slots) == 24 && offsetof(Header, program) == 56 && offsetof(Header, next) == 128);
static_assert(sizeof(Header) == HEADER_BYTES);

// A slot's seal is written last. Slot number n holds n + 1, with a mark when it only continues the value of the slot
// before. While its writer is at work the seal has SEAL_BUSY set; 0 is a slot never used.
inline constexpr std::uint64_t SEAL_BUSY = std::uint64_t{1} << 63;
inline constexpr std::uint64_t SEAL_CONTINUATION = std::uint64_t{1} << 62;
inline constexpr std::uint64_t SEAL_NUMBER = SEAL_CONTINUATION - 1;

enum Kind : std::uint8_t { ENTRY = 1, VARIABLE = 2, EXIT = 3 };

inline constexpr std::uint16_t EVENT_HAS_RESULT = 1;  // EXIT: sizeOrResult is the 32-bit return value
inline constexpr std::uint16_t EVENT_MASKED = 2;      // VARIABLE: the value was kept back, only its size is known

inline constexpr std::size_t FIRST_VALUE_BYTES = 16;
inline constexpr std::size_t NEXT_VALUE_BYTES = 56;
inline constexpr std::size_t MAX_EVENT_SLOTS = 5;
inline constexpr std::size_t MAX_VALUE_BYTES = FIRST_VALUE_BYTES + (MAX_EVENT_SLOTS - 1) * NEXT_VALUE_BYTES;

struct EventSlot {
  std::uint64_t seal;
  std::uint64_t time;          // CLOCK_MONOTONIC in ns
  std::uint64_t thread;        // as the caller named it: the kernel's number of the thread
  std::uint32_t point;         // trace_table.h
  std::uint32_t probe;         // VARIABLE: probe number; ENTRY: class of events
  std::uint8_t kind;           // Kind
  std::uint8_t slots;          // 1 and the continuations that follow
  std::uint16_t flags;         // EVENT_ bits
  std::uint32_t valueBytes;    // VARIABLE: bytes of the value kept here and in the continuations
  std::uint64_t sizeOrResult;  // VARIABLE: the size of the value; EXIT: the return value
  std::uint8_t value[FIRST_VALUE_BYTES];
};
static_assert(offsetof(EventSlot, point) == 24 && offsetof(EventSlot, kind) == 32);
static_assert(offsetof(EventSlot, sizeOrResult) == 40 && sizeof(EventSlot) == SLOT_BYTES);

struct ContinuationSlot {
  std::uint64_t seal;
  std::uint8_t value[NEXT_VALUE_BYTES];
};
static_assert(sizeof(ContinuationSlot) == SLOT_BYTES);

}  // namespace zon::trace_ring
