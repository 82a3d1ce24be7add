// The form of records in a frame: any bytes are safe to decode, in pieces of any size, and what was encoded comes back.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "platform/registry/format/zero_runs.h"

namespace {

constexpr std::size_t LARGEST = 4096;

void require(bool holds) {
  if (!holds) std::abort();
}

void decodeAnything(std::span<const std::byte> bytes) {
  std::vector<std::byte> out(LARGEST);
  zon::ZeroRunDecoder decoder(out, 8);
  const std::size_t first = bytes.size() / 3;
  if (!decoder.feed(bytes.first(first)) || !decoder.feed(bytes.subspan(first))) return;
  if (decoder.finished()) require(decoder.size() <= out.size() + 8);
}

void comeBack(std::span<const std::byte> record) {
  std::vector<std::byte> encoded;
  zon::encodeZeroRuns(record, encoded);
  std::vector<std::byte> out(record.size());
  zon::ZeroRunDecoder decoder(out);
  for (const std::byte& byte : encoded) require(decoder.feed(std::span(&byte, 1)));
  require(decoder.finished() && decoder.size() == record.size());
  require(std::equal(out.begin(), out.end(), record.begin()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const auto input = std::as_bytes(std::span(bytes, size));
  decodeAnything(input);
  comeBack(input);
  return 0;
}
