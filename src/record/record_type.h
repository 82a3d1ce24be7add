// What the three record types do alike, each step traced under the type's own point. The types are plain classes whose
// functions are spelled out; the work is here.
//
// The rule: as record_callbacks.h: the callbacks look at nothing but their arguments and never fail.
#pragma once

#include <cstdint>

#include "platform/trace_scope.h"
#include "record/record_callbacks.h"
#include "record/record_layout.h"
#include "record/trace_points.h"

namespace zon {

[[nodiscard]] inline std::uint32_t checkKey(std::uint32_t point, const DString& key) {
  TraceScope trace(point);
  return trace.exit(checkKeyText(key));
}

[[nodiscard]] inline std::uint32_t checkData(std::uint32_t point, const DString& data) {
  TraceScope trace(point);
  return trace.exit(checkDataText(data));
}

inline void tellReturnCode(std::uint32_t point, long rc) {
  TraceScope trace(point);
  printReturnCode(rc);
}

template <class Layout>
int matches(std::uint32_t point, unsigned long flags, const void* record, const void* other) {
  TraceScope trace(point);
  return trace.exit(matchRecord<Layout>(flags, record, other));
}

inline int accept(std::uint32_t point) {
  TraceScope trace(point);
  return trace.exit(0);
}

template <class Layout>
int print(std::uint32_t point, const void* record) {
  TraceScope trace(point);
  printRecord(RecordView<Layout>(record));
  return trace.exit(0);
}

inline int tell(std::uint32_t point, unsigned long value, unsigned long* out) {
  TraceScope trace(point);
  *out = value;
  return trace.exit(0);
}

}  // namespace zon
