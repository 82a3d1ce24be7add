// The catalogue of trace points: every function that records itself, gathered from the tables of all floors.
//
// The rule: it only composes; numbers and names come from the tables beside the functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/trace_table.h"

namespace zontrace {

using zon::trace::Result;

struct TracedFunction {
  std::uint32_t point;
  std::string name;
  Result result;
};

// In the order of their numbers.
const std::vector<TracedFunction>& catalogue();

// Null for a number that no function has.
const TracedFunction* findFunction(std::uint32_t point);

}  // namespace zontrace
