// Frames: what is put together is taken apart the same, and nothing else passes.
#include "platform/registry/format/frame.h"

#include <gtest/gtest.h>

#include "platform/registry/format/crc32c.h"

namespace zon {
namespace {

using format::FrameKind;
using Bytes = std::vector<std::byte>;

constexpr FrameKey KEY{.salt = 0x12345678, .indexCount = 3};
constexpr std::uint64_t OFFSET = 1 << 20;

Frame frameOf(FrameKind kind) {
  Frame frame;
  frame.kind = kind;
  frame.offset = OFFSET;
  frame.chain = 0xCAFE;
  frame.previous = 20000;
  frame.place = kind == FrameKind::INSERT ? OFFSET : 16384;
  if (kind == FrameKind::CHANGE || kind == FrameKind::REMOVE) frame.below = 12288;
  frame.links = {format::Link{.previous = 24000, .events = 3, .live = 2},
                 format::Link{.previous = 28000, .events = 5, .live = 1}};
  if (kind == FrameKind::AREA) {
    frame.area = format::AreaBody{.blocksOffset = OFFSET + format::BLOCK_SIZE, .blockCount = 4};
  }
  if (kind == FrameKind::SUMMARY) frame.summary = format::SummaryBody{.digest = 99, .index = 1, .count = 2};
  return frame;
}

Bytes payloadOf(FrameKind kind) {
  if (kind == FrameKind::AREA) return {};
  if (kind == FrameKind::REMOVE) return Bytes(KEY.indexCount * sizeof(std::uint64_t), std::byte{'p'});
  return Bytes(kind == FrameKind::SUMMARY ? 2 * sizeof(format::SummaryEntry) : 45, std::byte{'p'});
}

class FrameOfKind : public ::testing::TestWithParam<FrameKind> {
 protected:
  FrameOfKind() : frame_(frameOf(GetParam())) { appendFrame(frame_, payloadOf(GetParam()), KEY, bytes_); }

  ParseResult parse(const Bytes& bytes, std::uint64_t offset = OFFSET, const FrameKey& key = KEY) {
    return parseFrame(bytes, offset, key, parsed_);
  }

  Frame frame_;
  Bytes bytes_;
  Frame parsed_;
};

TEST_P(FrameOfKind, ComesBackAsItWas) {
  ASSERT_EQ(parse(bytes_), ParseResult::OK);
  EXPECT_EQ(parsed_.kind, frame_.kind);
  EXPECT_EQ(parsed_.offset, OFFSET);
  EXPECT_EQ(parsed_.size, frame_.size);
  EXPECT_EQ(parsed_.crc, frame_.crc);
  EXPECT_EQ(parsed_.chain, 0xCAFEu);
  EXPECT_EQ(parsed_.previous, 20000u);
  EXPECT_FALSE(parsed_.last);
  EXPECT_EQ(parsed_.size % format::FRAME_ALIGNMENT, 0u);
  if (frame_.isEvent()) {
    EXPECT_EQ(parsed_.place, frame_.place);
    EXPECT_EQ(parsed_.below, frame_.below);
    EXPECT_EQ(parsed_.previousIn(0), 20000u);
    EXPECT_EQ(parsed_.previousIn(1), 24000u);
    EXPECT_EQ(parsed_.previousIn(2), 28000u);
    EXPECT_EQ(parsed_.links[1].events, 5u);
    EXPECT_EQ(parsed_.links[1].live, 1u);
  }
}

TEST_P(FrameOfKind, PassesOnlyWithEveryBitOfItsHead) {
  for (std::size_t bit = 0; bit < frame_.prefixSize * std::size_t{8}; ++bit) {
    Bytes spoilt = bytes_;
    spoilt[bit / 8] ^= static_cast<std::byte>(1 << bit % 8);
    ASSERT_NE(parse(spoilt), ParseResult::OK) << bit;
  }
}

TEST_P(FrameOfKind, PassesAtNoOtherPlaceAndInNoOtherFile) {
  EXPECT_EQ(parse(bytes_, OFFSET + 8), ParseResult::BAD);
  EXPECT_EQ(parse(bytes_, OFFSET, FrameKey{.salt = KEY.salt + 1, .indexCount = 3}), ParseResult::BAD);
}

TEST_P(FrameOfKind, AsksForTheBytesThatItsHeadNeeds) {
  for (std::size_t size = 0; size < frame_.prefixSize; ++size) {
    EXPECT_EQ(parse(Bytes(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(size))), ParseResult::SHORT);
  }
  bytes_.resize(frame_.prefixSize);
  EXPECT_EQ(parse(bytes_), ParseResult::OK);
}

TEST_P(FrameOfKind, IsMarkedAsTheLastOfItsCommit) {
  const std::uint32_t before = frame_.crc;
  markLast(bytes_, frame_, KEY);
  ASSERT_EQ(parse(bytes_), ParseResult::OK);
  EXPECT_TRUE(parsed_.last);
  EXPECT_NE(parsed_.crc, before);
  EXPECT_EQ(parsed_.crc, frame_.crc);
  EXPECT_EQ(parsed_.size, frame_.size);
}

TEST_P(FrameOfKind, CoversItsPayloadAndPadding) {
  if (GetParam() == FrameKind::AREA) return;
  ASSERT_EQ(parse(bytes_), ParseResult::OK);
  ASSERT_EQ(bytes_.size(), frame_.size);
  EXPECT_EQ(crc32c(0, bytes_.data() + frame_.prefixSize, parsed_.payloadSize()), parsed_.payloadCrc);
}

std::string nameOfKind(const ::testing::TestParamInfo<FrameKind>& kind) {
  constexpr const char* NAMES[] = {"None", "Insert", "Change", "Remove", "Area", "Summary"};
  return NAMES[static_cast<int>(kind.param)];
}

INSTANTIATE_TEST_SUITE_P(Kinds, FrameOfKind,
                         ::testing::Values(FrameKind::INSERT, FrameKind::CHANGE, FrameKind::REMOVE, FrameKind::AREA,
                                           FrameKind::SUMMARY),
                         nameOfKind);

// Heads whose checksum is right and whose content cannot be.
class ImpossibleFrames : public ::testing::Test {
 protected:
  static ParseResult parsed(Frame frame, std::size_t payload = 40) {
    Bytes bytes;
    appendFrame(frame, Bytes(payload), KEY, bytes);
    Frame out;
    return parseFrame(bytes, frame.offset, KEY, out);
  }
};

TEST_F(ImpossibleFrames, LeadForward) {
  Frame frame = frameOf(FrameKind::INSERT);
  frame.previous = OFFSET;
  EXPECT_EQ(parsed(frame), ParseResult::BAD);
  frame = frameOf(FrameKind::CHANGE);
  frame.below = OFFSET;
  EXPECT_EQ(parsed(frame), ParseResult::BAD);
  frame = frameOf(FrameKind::CHANGE);
  frame.place = OFFSET + 8;
  EXPECT_EQ(parsed(frame), ParseResult::BAD);
}

TEST_F(ImpossibleFrames, CountWrongly) {
  Frame frame = frameOf(FrameKind::SUMMARY);
  EXPECT_EQ(parsed(frame, 2 * sizeof(format::SummaryEntry)), ParseResult::OK);
  EXPECT_EQ(parsed(frame, 3 * sizeof(format::SummaryEntry)), ParseResult::BAD);
  frame.summary.count = 0xFFFFFFFF;
  EXPECT_EQ(parsed(frame, 2 * sizeof(format::SummaryEntry)), ParseResult::BAD);
}

TEST_F(ImpossibleFrames, LeadOutOfTheLogOrBetweenFrames) {
  for (const std::uint64_t target :
       {std::uint64_t{8}, format::LOG_START - 8, format::LOG_START + 4, ~std::uint64_t{0}}) {
    Frame frame = frameOf(FrameKind::CHANGE);
    frame.place = target;
    EXPECT_EQ(parsed(frame), ParseResult::BAD) << target;
    frame = frameOf(FrameKind::CHANGE);
    frame.below = target;
    EXPECT_EQ(parsed(frame), ParseResult::BAD) << target;
    frame = frameOf(FrameKind::CHANGE);
    frame.links[1].previous = target;
    EXPECT_EQ(parsed(frame), ParseResult::BAD) << target;
    frame = frameOf(FrameKind::INSERT);
    frame.previous = target & 0xFFFFFFFFFFFF;
    EXPECT_EQ(parsed(frame), ParseResult::BAD) << target;
  }
}

TEST_F(ImpossibleFrames, ShortenTheirChainByMakingItLonger) {
  Frame frame = frameOf(FrameKind::CHANGE);
  frame.below = frame.previous + 8;
  EXPECT_EQ(parsed(frame), ParseResult::BAD);
}

TEST_F(ImpossibleFrames, AreRemovalsWithoutTheirDigests) {
  EXPECT_EQ(parsed(frameOf(FrameKind::REMOVE), 24), ParseResult::OK);
  for (const std::size_t payload : {0u, 16u, 32u, 1u << 20}) {
    EXPECT_EQ(parsed(frameOf(FrameKind::REMOVE), payload), ParseResult::BAD) << payload;
  }
}

TEST_F(ImpossibleFrames, AreRecordsOfNothing) {
  EXPECT_EQ(parsed(frameOf(FrameKind::INSERT), 0), ParseResult::BAD);
  EXPECT_EQ(parsed(frameOf(FrameKind::CHANGE), 0), ParseResult::BAD);
}

TEST_F(ImpossibleFrames, SummarizeWhatCannotBe) {
  Frame frame = frameOf(FrameKind::SUMMARY);
  for (const std::uint32_t index : {0u, 3u, 0xFFFFFFFFu}) {
    frame.summary.index = index;
    EXPECT_EQ(parsed(frame, 2 * sizeof(format::SummaryEntry)), ParseResult::BAD) << index;
  }
  // More live records than there is room for before it.
  frame = frameOf(FrameKind::SUMMARY);
  frame.summary.count = static_cast<std::uint32_t>((OFFSET - format::LOG_START) / format::LEAST_RECORD_FRAME);
  EXPECT_EQ(parsed(frame, frame.summary.count * sizeof(format::SummaryEntry)), ParseResult::OK);
  ++frame.summary.count;
  EXPECT_EQ(parsed(frame, frame.summary.count * sizeof(format::SummaryEntry)), ParseResult::BAD);
}

TEST_F(ImpossibleFrames, EndBehindWhatCanBeAddressed) {
  Frame frame = frameOf(FrameKind::INSERT);
  frame.offset = frame.place = format::MAX_OFFSET - 104;
  EXPECT_EQ(parsed(frame), ParseResult::OK);
  frame.offset = frame.place = format::MAX_OFFSET - 88;
  EXPECT_EQ(parsed(frame), ParseResult::BAD);
}

// The largest area's frame has a size that fits its field, wherever the frame begins.
TEST_F(ImpossibleFrames, AreNoneOfTheLargestAreas) {
  for (std::uint64_t offset = OFFSET; offset < OFFSET + format::BLOCK_SIZE; offset += format::FRAME_ALIGNMENT) {
    Frame frame = frameOf(FrameKind::AREA);
    frame.offset = offset;
    const std::uint64_t head = sizeof(format::FrameHeader) + sizeof(format::AreaBody);
    frame.area.blocksOffset = (offset + head + format::BLOCK_SIZE - 1) / format::BLOCK_SIZE * format::BLOCK_SIZE;
    frame.area.blockCount = format::MAX_BLOCKS;
    EXPECT_EQ(parsed(frame), ParseResult::OK) << offset;
    ++frame.area.blockCount;
    EXPECT_EQ(parsed(frame), ParseResult::BAD) << offset;
  }
}

TEST_F(ImpossibleFrames, AreAreasWhoseBlocksLieElsewhere) {
  Frame frame = frameOf(FrameKind::AREA);
  for (const std::uint64_t moved :
       {std::uint64_t{8}, std::uint64_t{512}, ~std::uint64_t{511}, std::uint64_t{1} << 63}) {
    frame = frameOf(FrameKind::AREA);
    frame.area.blocksOffset += moved;
    EXPECT_EQ(parsed(frame), ParseResult::BAD) << moved;
  }
}

TEST_F(ImpossibleFrames, HaveNoKnownKind) {
  Bytes zeros(format::MAX_PREFIX_SIZE);
  Frame out;
  EXPECT_EQ(parseFrame(zeros, OFFSET, KEY, out), ParseResult::BAD);
  Bytes ones(format::MAX_PREFIX_SIZE, std::byte{0xFF});
  EXPECT_EQ(parseFrame(ones, OFFSET, KEY, out), ParseResult::BAD);
}

}  // namespace
}  // namespace zon
