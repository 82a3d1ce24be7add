// The digest behind the index: its values are on disk.
#include "record/key_digest.h"

#include <gtest/gtest.h>

#include <array>
#include <numeric>
#include <string>

#include "record/record_callbacks.h"
#include "stores/store_operations.h"

namespace {

constexpr std::uint64_t SEED = 0x0123456789ABCDEF;

template <class... Texts>
std::uint64_t digestOf(Texts... texts) {
  zon::KeyDigest digest(SEED);
  (digest.add(texts), ...);
  return digest.finish();
}

// The published vectors: key and input count upwards from 0.
TEST(SipHash, GivesThePublishedVectors) {
  std::array<unsigned char, 63> input;
  std::iota(input.begin(), input.end(), static_cast<unsigned char>(0));
  const auto hash = [&](std::size_t length) {
    return zon::sipHash13(0x0706050403020100, 0x0F0E0D0C0B0A0908, input.data(), length);
  };
  EXPECT_EQ(hash(0), 0xABAC0158050FC4DC);
  EXPECT_EQ(hash(1), 0xC9F49BF37D57CA93);
  EXPECT_EQ(hash(7), 0xD3927D989BB11140);
  EXPECT_EQ(hash(8), 0x369095118D299A8E);
  EXPECT_EQ(hash(63), 0x9D199062B7BBB3A8);
}

// Made with an independent implementation.
TEST(SipHash, GivesKnownValuesForTexts) {
  const auto hash = [](std::string_view text) {
    return static_cast<std::int64_t>(zon::sipHash13(0, 0, text.data(), text.size()));
  };
  EXPECT_EQ(hash("a"), 4644417185603328019);
  EXPECT_EQ(hash("zoncustomtree"), -5179140329335990259);
  EXPECT_EQ(hash("exactly16bytes!!"), -7234387463284913845);
}

TEST(KeyDigest, TellsWhereAFieldEnds) {
  EXPECT_NE(digestOf("ab", "c"), digestOf("a", "bc"));
  EXPECT_NE(digestOf("ab", ""), digestOf("", "ab"));
  EXPECT_NE(digestOf("ab"), digestOf("ab", ""));
}

TEST(KeyDigest, DependsOnTheSeed) {
  zon::KeyDigest other(SEED + 1);
  other.add("ab");
  EXPECT_NE(other.finish(), digestOf("ab"));
}

TEST(KeyDigest, TakesThreeFieldsOfFullLength) {
  const std::string full(zon::KEY_FIELD_SIZE, 'x');
  EXPECT_EQ(digestOf(full, full, full), digestOf(full, full, full));
}

class RecordDigest : public testing::Test {
 protected:
  using Layout = zon::ThreeKeyLayout;

  std::uint64_t digest(unsigned long flags, const char* group, const char* kind, const char* member,
                       const char* data = "data") {
    DString texts[] = {group, kind, member, data, "v"};
    std::string record(zon::recordSizeFor<Layout>(texts[3]), '\0');
    zon::putRecord<Layout>(record.data(), {&texts[0], &texts[1], &texts[2]}, texts[3], texts[4]);
    return zon::digestRecord<Layout>(flags, record.data(), SEED);
  }
};

TEST_F(RecordDigest, LooksAtTheSelectedKeysOnly) {
  EXPECT_EQ(digest(2, "g", "0", "m"), digest(2, "g", "1", "n", "other"));
  EXPECT_NE(digest(2, "g", "0", "m"), digest(2, "h", "0", "m"));
  EXPECT_EQ(digest(12, "g", "0", "m"), digest(12, "h", "0", "m"));
  EXPECT_NE(digest(12, "g", "0", "m"), digest(12, "g", "1", "m"));
  EXPECT_NE(digest(14, "g", "0", "m"), digest(14, "g", "0", "n"));
}

TEST_F(RecordDigest, IgnoresFlagsOfOtherFields) {
  EXPECT_EQ(digest(14, "g", "0", "m", "a"), digest(14 | 16 | 32 | 64 | 1, "g", "0", "m", "b"));
}

TEST_F(RecordDigest, EndsATextAtItsNul) {
  DString texts[] = {DString("g\0x", 3), "0", "m", "d", "v"};
  std::string record(zon::recordSizeFor<Layout>(texts[3]), '\0');
  zon::putRecord<Layout>(record.data(), {&texts[0], &texts[1], &texts[2]}, texts[3], texts[4]);
  EXPECT_EQ(zon::digestRecord<Layout>(14, record.data(), SEED), digest(14, "g", "0", "m"));
}

}  // namespace
