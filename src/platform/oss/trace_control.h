// The control block: one exported data object, gtraceControl, through which a process is told from outside, as by a
// debugger, to start or stop recording, and through which it answers.
//
// The rule: zontrace finds and writes this object in running processes of older releases too. Fields are only ever
// added, with a new CONTROL_VERSION.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zon {

inline constexpr char CONTROL_SYMBOL[] = "gtraceControl";
inline constexpr char CONTROL_MAGIC[8] = {'Z', 'O', 'N', 'T', 'R', 'A', 'C', 'E'};
inline constexpr std::uint32_t CONTROL_VERSION = 1;
inline constexpr std::size_t CONTROL_PATH_BYTES = 4040;

// Bits of TraceControl::word. 0 is off with nothing left of a trace; the other bits count switchings, so that no two
// requests look alike.
inline constexpr std::uint32_t SWITCH_ON = 1;
inline constexpr std::uint32_t SWITCH_CLOSE = 2;   // asked to stop; the process has not yet let go of the ring
inline constexpr std::uint32_t SWITCH_VALUES = 4;  // record values of variables, not their sizes alone
inline constexpr std::uint32_t SWITCH_COUNT = 16;  // first bit of the count

enum class TraceState : std::uint32_t { OFF = 0, RECORDING = 1, FAILED = 2 };

struct TraceControl {
  char magic[8];
  std::uint32_t version;
  std::uint32_t bytes;              // sizeof(TraceControl)
  std::atomic<std::uint32_t> word;  // the request; set from outside after ringBytes and path, cleared by the process
  // The process's answer, valid when answerPid is its own number (a forked child inherits its parent's answer).
  std::atomic<std::uint32_t> answerWord;  // the request it belongs to
  std::atomic<std::uint32_t> answerPid;
  std::atomic<TraceState> state;
  std::atomic<std::uint32_t> reason;   // errno value of FAILED
  std::atomic<std::uint32_t> ownName;  // 1 when path was taken and the ring is path with ".<pid>" appended
  std::uint32_t reserved[2];
  std::uint64_t ringBytes;  // size of the event area
  char path[CONTROL_PATH_BYTES];
};
static_assert(offsetof(TraceControl, word) == 16 && offsetof(TraceControl, ringBytes) == 48);
static_assert(sizeof(TraceControl) == 4096 && std::atomic<std::uint32_t>::is_always_lock_free);

}  // namespace zon
