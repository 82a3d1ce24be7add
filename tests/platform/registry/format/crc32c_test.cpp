// The checksum against the published examples of RFC 3720, appendix B.4, and its two ways of computing it against each
// other.
#include "platform/registry/format/crc32c.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <random>
#include <vector>

namespace zon {
namespace {

template <class Bytes>
void expectBoth(const Bytes& bytes, std::uint32_t expected) {
  EXPECT_EQ(crc32c(0, bytes.data(), bytes.size()), expected);
  EXPECT_EQ(crc32cByTable(0, bytes.data(), bytes.size()), expected);
}

TEST(Crc32c, OfThePublishedExamples) {
  std::array<unsigned char, 32> bytes{};
  expectBoth(bytes, 0x8A9136AA);
  bytes.fill(0xFF);
  expectBoth(bytes, 0x62A8AB43);
  std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
  expectBoth(bytes, 0x46DD794E);
  std::iota(bytes.rbegin(), bytes.rend(), static_cast<unsigned char>(0));
  expectBoth(bytes, 0x113FDB5C);
  const std::array<unsigned char, 48> command{0x01, 0xC0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,    0, 0, 0, 0,
                                              0x14, 0,    0, 0, 0, 0, 4, 0, 0, 0, 0, 0x14, 0, 0, 0, 0x18,
                                              0x28, 0,    0, 0, 0, 0, 0, 0, 2, 0, 0, 0,    0, 0, 0, 0};
  expectBoth(command, 0xD9963A56);
}

TEST(Crc32c, OfNothingIsZero) {
  EXPECT_EQ(crc32c(0, nullptr, 0), 0u);
  EXPECT_EQ(crc32cByTable(0, nullptr, 0), 0u);
}

TEST(Crc32c, ContinuesOverPiecesAtAnyCut) {
  std::mt19937 random(7);
  std::vector<unsigned char> bytes(100);
  for (auto& byte : bytes) byte = static_cast<unsigned char>(random());
  const std::uint32_t whole = crc32c(0, bytes.data(), bytes.size());
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    const std::uint32_t first = crc32c(0, bytes.data(), cut);
    EXPECT_EQ(crc32c(first, bytes.data() + cut, bytes.size() - cut), whole) << cut;
    EXPECT_EQ(crc32cByTable(first, bytes.data() + cut, bytes.size() - cut), whole) << cut;
  }
}

TEST(Crc32c, IsTheSameBothWaysForAnyLengthAndAlignment) {
  std::mt19937 random(8);
  std::vector<unsigned char> bytes(700);
  for (auto& byte : bytes) byte = static_cast<unsigned char>(random());
  for (std::size_t from = 0; from < 8; ++from) {
    for (std::size_t size = 0; size + from <= bytes.size(); ++size) {
      ASSERT_EQ(crc32c(0xABCD, &bytes[from], size), crc32cByTable(0xABCD, &bytes[from], size));
    }
  }
}

TEST(Crc32c, NoticesEveryFlippedBit) {
  std::vector<unsigned char> bytes(200, 0x33);
  const std::uint32_t whole = crc32c(0, bytes.data(), bytes.size());
  for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (1u << bit % 8));
    ASSERT_NE(crc32c(0, bytes.data(), bytes.size()), whole) << bit;
    bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (1u << bit % 8));
  }
}

}  // namespace
}  // namespace zon
