// KeyDigest: the keyed 64-bit hash by which a record file's index finds records.
//
// The rule: the algorithm is part of the file format; a file written by one release is searched by the next. It is
// SipHash-1-3 with the 128-bit key (seed, SEED_COMPLEMENT xor seed), over the text of each added field followed by one
// zero byte. Texts hold no zero byte, so ("ab", "c") and ("a", "bc") give different inputs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "record/record_layout.h"

namespace zon {

class KeyDigest {
 public:
  static constexpr std::uint64_t SEED_COMPLEMENT = 0x6D64'6B65'7964'6967;
  static constexpr std::size_t MAX_FIELDS = 3;

  explicit KeyDigest(std::uint64_t seed) : seed_(seed) {}

  // REQUIRES: at most MAX_FIELDS calls, each with at most KEY_FIELD_SIZE bytes.
  void add(std::string_view text);

  std::uint64_t finish() const;

 private:
  std::uint64_t seed_;
  std::size_t length_ = 0;
  char input_[MAX_FIELDS * (KEY_FIELD_SIZE + 1)];
};

// SipHash with one compression and three finishing rounds; integers are read little-endian.
std::uint64_t sipHash13(std::uint64_t key0, std::uint64_t key1, const void* input, std::size_t length);

}  // namespace zon
