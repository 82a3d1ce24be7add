// A trace ring made by somebody else: reading it must never crash or hang. The input is the whole file.
#include <cstddef>
#include <cstdint>
#include <span>

#include "ring_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const auto input = std::as_bytes(std::span(bytes, size));
  zontrace::parseRing(input, input);
  return 0;
}
