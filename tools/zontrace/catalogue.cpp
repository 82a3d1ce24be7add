// See catalogue.h.
#include "catalogue.h"

#include <algorithm>

#include "platform/admin/trace_points.h"
#include "platform/registry/trace_points.h"
#include "record/trace_points.h"

namespace zontrace {

namespace {

void add(std::vector<TracedFunction>& functions, zon::trace::Table table) {
  for (const zon::trace::Row& row : table) {
    for (const zon::trace::Operation& operation : row.operations) {
      functions.push_back(
          {row.base + operation.offset, zon::trace::nameOf(row, operation), zon::trace::resultOf(row, operation)});
    }
  }
}

std::vector<TracedFunction> gather() {
  std::vector<TracedFunction> functions;
  add(functions, zon::trace::LIBRARY_POINTS);
  add(functions, zon::trace::ENGINE_POINTS);
  add(functions, zon::trace::ADMIN_POINTS);
  std::ranges::sort(functions, {}, &TracedFunction::point);
  return functions;
}

}  // namespace

const std::vector<TracedFunction>& catalogue() {
  static const std::vector<TracedFunction> FUNCTIONS = gather();
  return FUNCTIONS;
}

const TracedFunction* findFunction(std::uint32_t point) {
  const auto found = std::ranges::lower_bound(catalogue(), point, {}, &TracedFunction::point);
  return found != catalogue().end() && found->point == point ? &*found : nullptr;
}

}  // namespace zontrace
