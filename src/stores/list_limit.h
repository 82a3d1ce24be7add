// How long a list may become: its length, closing NUL included, is handed out as a 32-bit number.
//
// The rule: a list that would be longer is refused before memory is spent on it.
#pragma once

#include <cstdint>

namespace zon {

inline constexpr std::uint64_t MOST_LIST_BYTES = UINT32_MAX - 1;

// The limit in use. Only tests change it, before they start threads.
extern std::uint64_t mostListBytes;

}  // namespace zon
