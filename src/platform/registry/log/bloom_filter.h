// Which digests a log that is being built may hold already: a Bloom filter with one hash, as digests are hashes.
//
// The rule: a wrong yes costs one look-up, a no is certain.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace zon {

class BloomFilter {
 public:
  // In bounded memory, however many digests are expected.
  explicit BloomFilter(std::uint64_t digests)
      : bits_(static_cast<std::size_t>(std::clamp(std::bit_ceil(digests * BITS_PER_DIGEST), LEAST_BITS, MOST_BITS) /
                                       WORD_BITS)) {}

  // Notes the digest; answers whether it may have been noted before.
  bool note(std::uint64_t digest) {
    const std::uint64_t bit = digest % (bits_.size() * WORD_BITS);
    const std::uint64_t mask = std::uint64_t{1} << bit % WORD_BITS;
    const bool seen = (bits_[bit / WORD_BITS] & mask) != 0;
    bits_[bit / WORD_BITS] |= mask;
    return seen;
  }

 private:
  static constexpr std::uint64_t WORD_BITS = 64;
  static constexpr std::uint64_t BITS_PER_DIGEST = 32;
  static constexpr std::uint64_t LEAST_BITS = 1024;
  static constexpr std::uint64_t MOST_BITS = std::uint64_t{1} << 25;

  std::vector<std::uint64_t> bits_;
};

}  // namespace zon
