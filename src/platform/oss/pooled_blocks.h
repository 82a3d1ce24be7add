// Which blocks the memory service keeps for the next caller when they are released.
//
// The rule: whoever has buffers that come and go with every call asserts that they are among these; a larger one costs
// a mapping of its own each time.
#pragma once

#include <cstddef>

namespace zon {

// What a pooled block takes of the address space, with what the service writes before the caller's bytes.
inline constexpr std::size_t POOLED_BYTES = std::size_t{1024 + 64} * 1024;
inline constexpr std::size_t BLOCK_HEADER_BYTES = 32;
inline constexpr std::size_t LARGEST_POOLED_BLOCK = POOLED_BYTES - BLOCK_HEADER_BYTES;

}  // namespace zon
