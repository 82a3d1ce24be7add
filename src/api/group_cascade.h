// The cascade that withdraws a removed member from its groups, as the removal entry points call it.
//
// The rule: it runs after the store that made the removal is gone.
#pragma once

#include <cstdint>

namespace zon {

// removeMemberFromGroups for the text of an input cell; null is the empty name.
[[nodiscard]] std::uint32_t withdrawMember(const char* member, char kind) noexcept;

}  // namespace zon
