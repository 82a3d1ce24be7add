// TraceScope: how a function traces itself. One object at the top of the function traces entry, exit on every path, and
// the variables it is given.
//
// The rule: whoever traces asks gtraceIsAttached, then gtraceIsEnabled, before every single trace call, and while
// tracing is off pays for nothing but the first question.
//
//   std::uint32_t MDCustomTree::remove(DString& key) {
//     zon::TraceScope trace(zon::trace::point("MDCustomTree::remove"));   // its number, from the table of its floor
//     trace.variable(key.c_str(), key.length());           // probe 10; the next one is 20
//     if (const std::uint32_t rc = checkKeyLength(key)) return trace.exit(rc);
//     return trace.exit(Delete(MATCH_KEY, match.get()));
//   }
#pragma once

#include <cstddef>
#include <cstdint>

#include "zonmdfile/platform/oss.h"
#include "zonmdfile/platform/trace.h"

namespace zon {

class TraceScope {
 public:
  static constexpr std::uint32_t CALLS = 1000000;  // the class of events that entries belong to
  static constexpr std::uint32_t PROBE_STEP = 10;
  static constexpr std::uint32_t VARIABLE_LEVEL = 3;
  static constexpr std::uint32_t VARIABLE_COUNT = 1;

  explicit TraceScope(std::uint32_t point) : point_(point) {
    if (isTraced()) [[unlikely]] {
      traceEntry();
    }
  }

  ~TraceScope() {
    if (isTraced()) [[unlikely]] {
      traceExit();
    }
  }

  TraceScope(const TraceScope&) = delete;
  TraceScope& operator=(const TraceScope&) = delete;

  // Traces size bytes at data under the next probe number. Numbers count calls, traced or not, so that a probe keeps
  // its number whenever tracing is switched on. REQUIRES: data is readable, or size is 0.
  void variable(const void* data, std::size_t size) {
    probe_ += PROBE_STEP;
    if (isTraced()) [[unlikely]] {
      traceVariable(data, size);
    }
  }

  // Remembers the value that the exit will carry, and hands it back: return trace.exit(rc).
  std::uint32_t exit(std::uint32_t rc) {
    result_ = rc;
    hasResult_ = true;
    return rc;
  }
  std::int32_t exit(std::int32_t value) {
    exit(static_cast<std::uint32_t>(value));
    return value;
  }

 private:
  static bool isTraced() { return gtraceIsAttached() != 0 && gtraceIsEnabled() != 0; }

  [[gnu::noinline, gnu::cold]] void traceEntry() const { _gtraceEntry(ossThreadID(), point_, 0, CALLS); }

  [[gnu::noinline, gnu::cold]] void traceExit() const {
    _gtraceExit(ossThreadID(), point_, hasResult_ ? &result_ : nullptr, 0);
  }

  [[gnu::noinline, gnu::cold]] void traceVariable(const void* data, std::size_t size) const {
    _gtraceVar(ossThreadID(), point_, probe_, VARIABLE_LEVEL, VARIABLE_COUNT, 0, size, data);
  }

  std::uint32_t point_;
  std::uint32_t probe_ = 0;
  std::uint32_t result_ = 0;
  bool hasResult_ = false;
};

}  // namespace zon
