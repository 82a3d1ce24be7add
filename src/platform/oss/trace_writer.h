// RingWriter: makes a ring file and writes events into it from any number of threads at once.
//
// The rule: writing an event takes no lock, makes no system call beyond the clock, and never touches memory outside the
// mapping, whatever stands in the file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/oss/trace_ring.h"

namespace zon {

struct TraceEvent {
  std::uint64_t thread;
  std::uint32_t point;
  std::uint32_t probe;
  trace_ring::Kind kind;
  std::uint16_t flags;
  std::uint64_t sizeOrResult;
  const void* value;  // valueBytes of it are recorded
  std::size_t valueBytes;
};

// Identity of a ring file, by which a process recognises its own when it is told to go on with it.
struct RingIdentity {
  std::uint64_t device;
  std::uint64_t inode;
  std::uint64_t pid;
};

// Plain data: an all-zero object is closed, which is what a forked child finds.
class RingWriter {
 public:
  // Makes the file at path, which must be absolute and not exist, and maps it. If it exists and is the ring that
  // `previous` names, of the same size, recording goes on in it. Returns 0 or an errno value; EEXIST for a name taken.
  // Descriptors 0 to 2 are left alone, and none stays open.
  int open(const char* path, std::uint64_t eventBytes, bool withValues, RingIdentity& previous);

  // REQUIRES: no thread is inside write.
  void close();

  bool isOpen() const { return header_ != nullptr; }
  bool keepsValues() const { return withValues_; }
  void* mapping() const { return header_; }
  std::size_t mappedBytes() const { return trace_ring::HEADER_BYTES + (mask_ + 1) * trace_ring::SLOT_BYTES; }

  // REQUIRES: isOpen(); event.value is readable for event.valueBytes, which must be 0 unless keepsValues().
  void write(const TraceEvent& event);

 private:
  int map(int descriptor, std::uint64_t slots);
  void fillHeader(bool withValues);
  std::uint64_t* claim(std::uint64_t number);
  std::size_t writeContinuations(std::uint64_t first, const TraceEvent& event, std::size_t bytes);

  trace_ring::Header* header_;
  std::uint64_t mask_;  // slots - 1; kept here because the file is open to others
  bool withValues_;
};

}  // namespace zon
