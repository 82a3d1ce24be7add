// The trace points of libzonvekapi.
//
// The rule: as in trace_table.h.
#pragma once

#include "platform/trace_table.h"

namespace zon::trace {

inline constexpr Operation ADMIN_FUNCTIONS[] = {{0, "getMetadataPath", Result::NUMBER},
                                                {1, "setMetadataPath", Result::NUMBER},
                                                {2, "vekFillSqlca"},
                                                {3, "ecfToSqlError", Result::SQLCODE},
                                                {4, "ecfErrorGetDescription"}};

inline constexpr Row ADMIN_POINTS[] = {{451418000, "", FREE_FUNCTION, ADMIN_FUNCTIONS}};

consteval std::uint32_t adminPoint(std::string_view name) { return find(ADMIN_POINTS, name); }

}  // namespace zon::trace
