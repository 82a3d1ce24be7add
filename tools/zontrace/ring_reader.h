// Reads a ring file into events.
//
// The rule: a ring is untrusted input, and may be written to while it is read. Nothing in it is believed before it is
// checked; what cannot be believed is counted, and all the rest is still read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/oss/trace_ring.h"

namespace zontrace {

struct Event {
  std::uint64_t number;  // of its slot since the ring was made; gives the order
  std::uint64_t time;    // CLOCK_MONOTONIC in ns
  std::uint64_t thread;
  std::uint32_t point;
  std::uint32_t probe;
  zon::trace_ring::Kind kind;
  bool hasResult;
  bool isMasked;
  std::uint64_t sizeOrResult;
  std::string value;
};

struct Recording {
  enum class Condition { INTACT, DAMAGED, NOT_A_RING, UNREADABLE };

  Condition condition = Condition::INTACT;
  std::string problem;  // what is wrong and what to do; empty when intact

  std::uint64_t pid = 0;
  std::string program;
  std::uint64_t monotonicTime = 0;
  std::uint64_t wallTime = 0;  // of monotonicTime, in ns since 1970
  bool hasValues = false;

  std::vector<Event> events;     // in the order in which they began
  std::uint64_t begun = 0;       // events that the process began to record
  std::uint64_t dropped = 0;     // not recorded, their slot being in use
  std::uint64_t unfinished = 0;  // being written when the process ended, or when the ring was read
  std::uint64_t overwritten = 0;
  std::uint64_t damaged = 0;  // slots that hold what no process writes
};

// Reads the file. It may still be recorded into: slots that change while they are read count as unfinished.
Recording readRing(const std::string& path);

// The same from two copies of the file's bytes, the second taken after the first.
Recording parseRing(std::span<const std::byte> first, std::span<const std::byte> second);

}  // namespace zontrace
