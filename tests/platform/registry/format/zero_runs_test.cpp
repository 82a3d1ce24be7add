// The form of record bytes in a frame: what is encoded comes back, and nothing that is fed does harm.
#include "platform/registry/format/zero_runs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

namespace zon {
namespace {

using Bytes = std::vector<std::byte>;

Bytes bytesOfText(const std::string& text) {
  Bytes bytes(text.size());
  std::transform(text.begin(), text.end(), bytes.begin(), [](char letter) { return static_cast<std::byte>(letter); });
  return bytes;
}

Bytes encoded(const Bytes& record) {
  Bytes out;
  encodeZeroRuns(record, out);
  return out;
}

// Decodes in pieces of this size into a buffer full of other bytes.
bool decodes(const Bytes& form, const Bytes& expected, std::size_t piece) {
  Bytes out(expected.size(), std::byte{0xEE});
  ZeroRunDecoder decoder(out);
  for (std::size_t at = 0; at < form.size(); at += piece) {
    if (!decoder.feed(std::span(form).subspan(at, std::min(piece, form.size() - at)))) return false;
  }
  return decoder.finished() && decoder.size() == expected.size() && out == expected;
}

TEST(ZeroRuns, ComeBackAsTheyWereInPiecesOfAnySize) {
  std::mt19937 random(5);
  for (int round = 0; round < 400; ++round) {
    Bytes record(random() % 600);
    for (std::size_t at = 0; at < record.size();) {
      const std::size_t run = random() % 40 + 1;
      const bool isZero = random() % 2 == 0;
      for (std::size_t end = std::min(at + run, record.size()); at < end; ++at) {
        record[at] = isZero ? std::byte{0} : static_cast<std::byte>(random() % 255 + 1);
      }
    }
    const Bytes form = encoded(record);
    for (const std::size_t piece : {1u, 2u, 3u, 7u, 64u, 1000u}) ASSERT_TRUE(decodes(form, record, piece)) << round;
  }
}

TEST(ZeroRuns, AreShortForWhatIsMostlyZero) {
  EXPECT_LE(encoded(Bytes(1000000)).size(), 8u);
  Bytes record(1000);
  record[500] = std::byte{1};
  EXPECT_LE(encoded(record).size(), 10u);
}

TEST(ZeroRuns, CostLittleForWhatHasNone) {
  const Bytes record(5000, std::byte{'x'});
  EXPECT_LE(encoded(record).size(), record.size() + 5);
}

TEST(ZeroRuns, OfNothingAreOneByte) {
  EXPECT_EQ(encoded({}).size(), 1u);
  EXPECT_TRUE(decodes(encoded({}), {}, 1));
}

TEST(ZeroRuns, LeaveWhatFollowsTheRecordAlone) {
  Bytes form = encoded(bytesOfText("record"));
  form.resize(form.size() + 7);
  EXPECT_TRUE(decodes(form, bytesOfText("record"), 100));
}

TEST(ZeroRuns, LongerThanTheBufferAreRefused) {
  const Bytes form = encoded(Bytes(100, std::byte{'x'}));
  Bytes out(99);
  EXPECT_FALSE(ZeroRunDecoder(out).feed(form));
}

TEST(ZeroRuns, MayPassTheBufferByZerosWithinTheRoomGiven) {
  Bytes record(104);
  std::fill_n(record.begin(), 100, std::byte{'x'});
  const Bytes form = encoded(record);
  Bytes out(100);
  ZeroRunDecoder decoder(out, 8);
  ASSERT_TRUE(decoder.feed(form));
  EXPECT_TRUE(decoder.finished());
  EXPECT_EQ(decoder.size(), 104u);
  record[102] = std::byte{1};
  EXPECT_FALSE(ZeroRunDecoder(out, 8).feed(encoded(record)));
}

TEST(ZeroRuns, CutShortAreNotFinished) {
  const Bytes form = encoded(bytesOfText("some record of some bytes"));
  Bytes out(100);
  for (std::size_t length = 0; length < form.size(); ++length) {
    ZeroRunDecoder decoder(out);
    decoder.feed(std::span(form).first(length));
    EXPECT_FALSE(decoder.finished()) << length;
  }
}

TEST(ZeroRuns, OfAnyBytesStayWithinTheBuffer) {
  std::mt19937 random(6);
  constexpr std::size_t SIZE = 200;
  Bytes guarded(SIZE + 64, std::byte{0x77});
  for (int round = 0; round < 100000; ++round) {
    Bytes form(random() % 60);
    for (auto& byte : form) byte = static_cast<std::byte>(random() % 3 == 0 ? random() : random() % 20);
    ZeroRunDecoder decoder(std::span<std::byte>(guarded).first(SIZE), random() % 9);
    decoder.feed(form);
    ASSERT_TRUE(std::all_of(guarded.begin() + SIZE, guarded.end(), [](std::byte b) { return b == std::byte{0x77}; }));
  }
}

}  // namespace
}  // namespace zon
