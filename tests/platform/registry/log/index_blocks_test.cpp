// Index blocks: what is written is found from the newest segment on, and what fails its checksum is told.
#include "platform/registry/log/index_blocks.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <random>

#include "platform/registry/files/file_io.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

constexpr std::uint32_t SALT = 0xBEEF;

TEST(IndexEntries, TellOffsetIndexAndTag) {
  for (const std::uint64_t offset : {std::uint64_t{4096}, std::uint64_t{1} << 30, format::MAX_OFFSET - 8}) {
    for (const std::size_t index : {0u, 1u, 2u}) {
      const std::uint64_t digest = 0xFEDCBA9876543210;
      const std::uint64_t entry = makeEntry(index, digest, offset);
      EXPECT_EQ(entryOffset(entry), offset);
      EXPECT_TRUE(mayBeOf(entry, index, digest));
      EXPECT_FALSE(mayBeOf(entry, (index + 1) % 3, digest));
      EXPECT_FALSE(mayBeOf(entry, index, digest ^ std::uint64_t{1} << 63));
    }
  }
}

TEST(IndexSegments, ArePackedAndUnpacked) {
  for (const Segment segment : {Segment{.offset = 4608, .blockCount = 8},
                                Segment{.offset = format::MAX_OFFSET - 512, .blockCount = (1 << 23) - 1}}) {
    const Segment again = unpackSegment(packSegment(segment));
    EXPECT_EQ(again.offset, segment.offset);
    EXPECT_EQ(again.blockCount, segment.blockCount);
  }
}

TEST(IndexSegments, SpreadDigestsOverAllTheirBlocks) {
  std::mt19937_64 random(9);
  std::vector<int> hits(37);
  for (int round = 0; round < 37000; ++round) ++hits.at(homeBlock(random(), hits.size()));
  for (const int hit : hits) EXPECT_GT(hit, 700);
  EXPECT_EQ(homeBlock(~std::uint64_t{0}, 37), 36u);
  EXPECT_EQ(homeBlock(0, 37), 0u);
}

class IndexBlocks : public ::testing::Test {
 protected:
  IndexBlocks() {
    EXPECT_EQ(openRegular(AT_FDCWD, (folder_.path() / "blocks").c_str(), O_RDWR | O_CREAT, 0666, file_), MD_RC_OK);
    slot_.segments[0] = packSegment(OLD);
    slot_.segments[1] = packSegment(NEW);
    for (const Segment& segment : {OLD, NEW}) EXPECT_EQ(writeEmptyBlocks(file_.get(), SALT, segment), MD_RC_OK);
  }

  static std::uint64_t homeOf(const Segment& segment, std::uint64_t digest) {
    return segment.offset + homeBlock(digest, segment.blockCount) * format::BLOCK_SIZE;
  }

  void put(std::uint64_t offset, const std::vector<std::uint64_t>& entries, bool overflowed = false) {
    format::Block block{};
    block.count = static_cast<std::uint8_t>(entries.size());
    block.overflowed = overflowed ? 1 : 0;
    std::copy(entries.begin(), entries.end(), block.entries);
    sealBlock(block, SALT, offset);
    ASSERT_EQ(writeAt(file_.get(), offset, bytesOf(block)), MD_RC_OK);
  }

  std::uint32_t find(std::uint64_t digest, std::vector<std::uint64_t>& offsets) {
    EntrySearch search(file_.get(), SALT, slot_, 0, digest);
    for (;;) {
      const Answer<std::uint64_t> entry = search.next();
      if (entry.rc != MD_RC_OK || entry.value == 0) return entry.rc;
      offsets.push_back(entry.value);
    }
  }

  static constexpr Segment OLD{.offset = 4608, .blockCount = 8};
  static constexpr Segment NEW{.offset = 16384, .blockCount = 20};
  TestFolder folder_;
  Descriptor file_;
  format::Slot slot_{};
};

TEST_F(IndexBlocks, HoldNothingAtFirst) {
  std::vector<std::uint64_t> offsets;
  EXPECT_EQ(segmentCount(slot_), 2u);
  EXPECT_EQ(find(12345, offsets), MD_RC_OK);
  EXPECT_TRUE(offsets.empty());
}

TEST_F(IndexBlocks, AreSearchedFromTheNewestSegmentOn) {
  const std::uint64_t digest = 0x123456789ABCDEF0;
  put(homeOf(OLD, digest), {makeEntry(0, digest, 80000), makeEntry(0, ~digest, 80008)});
  put(homeOf(NEW, digest), {makeEntry(1, digest, 80016), makeEntry(0, digest, 81600)});
  std::vector<std::uint64_t> offsets;
  ASSERT_EQ(find(digest, offsets), MD_RC_OK);
  EXPECT_EQ(offsets, (std::vector<std::uint64_t>{81600, 80000}));
}

TEST_F(IndexBlocks, GoOnInTheNextOneWhenFull) {
  const std::uint64_t digest = 0xAAAA0000FFFFFFFF;  // at home in the last block: the next one is the first
  put(homeOf(OLD, digest), std::vector<std::uint64_t>(format::BLOCK_ENTRIES, makeEntry(0, ~digest, 80008)), true);
  put(OLD.offset, {makeEntry(0, digest, 84800)});
  std::vector<std::uint64_t> offsets;
  ASSERT_EQ(find(digest, offsets), MD_RC_OK);
  EXPECT_EQ(offsets, std::vector<std::uint64_t>{84800});
}

TEST_F(IndexBlocks, ThatAllOverflowAreNotSearchedForEver) {
  for (std::uint64_t block = 0; block < OLD.blockCount; ++block) {
    put(OLD.offset + block * format::BLOCK_SIZE, {}, true);
  }
  std::vector<std::uint64_t> offsets;
  EXPECT_EQ(find(1, offsets), MD_RC_OK);
  EXPECT_TRUE(offsets.empty());
}

TEST_F(IndexBlocks, PassOnlyAtTheirPlaceInTheirFileAndWhole) {
  format::Block block{};
  block.count = 5;
  std::fill_n(block.entries, block.count, makeEntry(0, 77, format::LOG_START));
  sealBlock(block, SALT, OLD.offset);
  ASSERT_EQ(writeAt(file_.get(), OLD.offset, bytesOf(block)), MD_RC_OK);
  ASSERT_EQ(writeAt(file_.get(), OLD.offset + 512, bytesOf(block)), MD_RC_OK);
  format::Block read;
  EXPECT_EQ(readBlock(file_.get(), SALT, OLD.offset, read), MD_RC_OK);
  EXPECT_EQ(readBlock(file_.get(), SALT, OLD.offset + 512, read), GENREG_RC_DAMAGED);
  EXPECT_EQ(readBlock(file_.get(), SALT + 1, OLD.offset, read), GENREG_RC_DAMAGED);
  for (std::size_t bit = 0; bit < (8 + 5 * 8) * 8; ++bit) {
    auto spoilt = block;
    reinterpret_cast<unsigned char*>(&spoilt)[bit / 8] ^= static_cast<unsigned char>(1u << bit % 8);
    ASSERT_EQ(writeAt(file_.get(), OLD.offset, bytesOf(spoilt)), MD_RC_OK);
    ASSERT_EQ(readBlock(file_.get(), SALT, OLD.offset, read), GENREG_RC_DAMAGED) << bit;
  }
  EXPECT_EQ(readBlock(file_.get(), SALT, std::uint64_t{1} << 40, read), GENREG_RC_DAMAGED);
}

// Of a fourth index there is none, and no frame lies before the log.
TEST_F(IndexBlocks, DoNotPassWithEntriesThatCannotBe) {
  format::Block read;
  for (const std::uint64_t entry :
       {makeEntry(3, 77, format::LOG_START), makeEntry(0, 77, format::LOG_START - 8), std::uint64_t{0}}) {
    put(OLD.offset, {makeEntry(2, 77, format::LOG_START)});
    ASSERT_EQ(readBlock(file_.get(), SALT, OLD.offset, read), MD_RC_OK);
    put(OLD.offset, {makeEntry(2, 77, format::LOG_START), entry});
    EXPECT_EQ(readBlock(file_.get(), SALT, OLD.offset, read), GENREG_RC_DAMAGED) << entry;
  }
}

}  // namespace
}  // namespace zon::test
