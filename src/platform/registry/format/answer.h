// What a question answers that may fail on the way.
//
// The rule: the value says nothing unless the code is MD_RC_OK.
#pragma once

#include <cstdint>

#include "zonmdfile/platform/return_codes.h"

namespace zon {

template <class Value>
struct [[nodiscard]] Answer {
  std::uint32_t rc = MD_RC_OK;
  Value value{};
};

}  // namespace zon
