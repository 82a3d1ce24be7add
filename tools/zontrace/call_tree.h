// Turns the events of a recording into call trees, one per thread, flattened to lines with a depth.
//
// The rule: no recursion, since the depth comes from the file; and every event becomes part of exactly one line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ring_reader.h"

namespace zontrace {

struct CallLine {
  enum class Kind { CALL, VARIABLE };

  Kind kind;
  std::size_t depth;
  std::uint32_t point;
  std::optional<std::uint64_t> entryTime;  // CALL: none when the entry was not recorded; VARIABLE: when it was recorded
  std::optional<std::uint64_t> exitTime;   // CALL: none when the exit was not recorded
  std::optional<std::uint32_t> result;     // CALL: the return value, if any was traced
  std::uint32_t probe;                     // VARIABLE
  std::uint64_t size;                      // VARIABLE: size of the value in the process
  bool isMasked;                           // VARIABLE: the value was kept back
  std::string value;                       // VARIABLE: its first bytes
};

struct ThreadTree {
  std::uint64_t thread;
  std::vector<CallLine> lines;  // in the order in which they began
};

// In the order in which the threads first appear.
std::vector<ThreadTree> buildCallTrees(const Recording& recording);

}  // namespace zontrace
