// The storage of strings: where its bytes lie, how it grows, and what it does without memory.
#include "zonmdfile/platform/DBuffer.h"

#include <gtest/gtest.h>

#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "zonmdfile/platform/oss.h"

namespace {

std::string_view viewOf(const DBuffer& buffer) { return {buffer.data(), buffer.length()}; }

class Buffer : public testing::Test {
 protected:
  void TearDown() override {
    ossMemFailAt(0, 0);
    EXPECT_EQ(ossMemOutstanding("DBuffer"), outstandingBefore_);
  }

  std::uint64_t outstandingBefore_ = ossMemOutstanding("DBuffer");
};

TEST_F(Buffer, AllocatesNothingWhileEmpty) {
  const std::uint64_t before = ossMemAllocationCount();
  DBuffer empty;
  DBuffer copy(empty);
  DBuffer moved(std::move(empty));
  copy = moved;
  copy.clear();
  copy.assign("", 0);
  copy.append(nullptr, 0);
  copy.erase(0, 10);
  EXPECT_STREQ(copy.data(), "");
  EXPECT_EQ(copy.capacity(), 0U);
  EXPECT_EQ(ossMemAllocationCount(), before);
}

TEST_F(Buffer, EndsInANulThatDoesNotCount) {
  DBuffer buffer("ab\0c", 4);
  EXPECT_EQ(buffer.length(), 4U);
  EXPECT_EQ(buffer.data()[4], '\0');
  buffer.append("d", 1);
  EXPECT_EQ(buffer.data()[5], '\0');
  buffer.erase(1, 2);
  EXPECT_STREQ(buffer.data(), "acd");
  buffer.clear();
  EXPECT_STREQ(buffer.data(), "");
}

TEST_F(Buffer, LiesInOneBlockOfTheMemoryService) {
  DBuffer buffer("abc", 3);
  EXPECT_EQ(ossMemOutstanding("DBuffer"), outstandingBefore_ + 1);
  EXPECT_GT(ossMemSize(buffer.data()), 3U);
}

TEST_F(Buffer, GrowsByDoubling) {
  DBuffer buffer;
  const std::uint64_t before = ossMemAllocationCount();
  for (int i = 0; i < 3'000'000; ++i) buffer.append("x", 1);
  EXPECT_LE(ossMemAllocationCount() - before, 20U);
  EXPECT_EQ(viewOf(buffer), std::string(3'000'000, 'x'));
}

TEST_F(Buffer, AllocatesNothingUpToTheReservedLength) {
  DBuffer buffer;
  buffer.reserve(1000);
  const char* const place = buffer.data();
  const std::uint64_t before = ossMemAllocationCount();
  for (int i = 0; i < 1000; ++i) buffer.append("x", 1);
  EXPECT_EQ(buffer.data(), place);
  EXPECT_EQ(ossMemAllocationCount(), before);
  EXPECT_GE(buffer.capacity(), 1000U);
}

TEST_F(Buffer, KeepsItsBytesWhenRoomIsReserved) {
  DBuffer buffer("abc", 3);
  buffer.reserve(100'000);
  buffer.reserve(10);
  EXPECT_EQ(viewOf(buffer), "abc");
  EXPECT_GE(buffer.capacity(), 100'000U);
}

TEST_F(Buffer, KeepsItsBlockWhenShorterBytesAreAssigned) {
  DBuffer buffer("a text that is somewhat longer than the one to come", 51);
  const char* const place = buffer.data();
  buffer.assign("short", 5);
  EXPECT_EQ(buffer.data(), place);
  EXPECT_EQ(viewOf(buffer), "short");
}

TEST_F(Buffer, AppendsItsOwnBytesWhileItsBlockMoves) {
  DBuffer buffer("0123456789", 10);
  for (int i = 0; i < 14; ++i) buffer.append(buffer.data(), buffer.length());
  ASSERT_EQ(buffer.length(), std::size_t{10} << 14);
  std::string expected;
  while (expected.size() < buffer.length()) expected += "0123456789";
  EXPECT_EQ(viewOf(buffer), expected);
}

TEST_F(Buffer, AssignsAPartOfItself) {
  DBuffer buffer("0123456789", 10);
  buffer.assign(buffer.data() + 3, 4);
  EXPECT_EQ(viewOf(buffer), "3456");
}

TEST_F(Buffer, AssignsItself) {
  DBuffer buffer("abc", 3);
  DBuffer& same = buffer;
  buffer = same;
  EXPECT_EQ(viewOf(buffer), "abc");
  buffer = std::move(same);
  EXPECT_EQ(viewOf(buffer), "abc");
}

TEST_F(Buffer, MovesItsBlock) {
  DBuffer source("abc", 3);
  const char* const place = source.data();
  DBuffer target("other", 5);
  target = std::move(source);
  EXPECT_EQ(target.data(), place);
  EXPECT_EQ(source.length(), 0U);  // NOLINT: the state after a move is promised
  EXPECT_STREQ(source.data(), "");
}

TEST_F(Buffer, ErasesNothingBeyondItsEnd) {
  DBuffer buffer("abcdef", 6);
  buffer.erase(6, 1);
  buffer.erase(100, std::numeric_limits<std::size_t>::max());
  EXPECT_EQ(viewOf(buffer), "abcdef");
  buffer.erase(4, std::numeric_limits<std::size_t>::max());
  EXPECT_EQ(viewOf(buffer), "abcd");
  buffer.erase(0, 4);
  EXPECT_EQ(viewOf(buffer), "");
}

TEST_F(Buffer, HandsItsBlockOverUnderTheReceiversLabel) {
  DBuffer buffer("abc", 3);
  const char* const place = buffer.data();
  const std::uint64_t outstanding = ossMemOutstanding("DBuffer");
  void* text = buffer.release("DBuffer_test.receiver", __LINE__);
  EXPECT_EQ(text, place);
  EXPECT_STREQ(static_cast<const char*>(text), "abc");
  EXPECT_EQ(ossMemSize(text), 4U);
  EXPECT_EQ(ossMemOutstanding("DBuffer"), outstanding - 1);
  EXPECT_EQ(ossMemOutstandingBytes("DBuffer_test.receiver"), 4U);
  EXPECT_EQ(buffer.length(), 0U);
  buffer.append("def", 3);
  EXPECT_STREQ(static_cast<const char*>(text), "abc");
  _ossMemFree(&text, 0, 0, "DBuffer_test", __LINE__);
  EXPECT_EQ(ossMemOutstanding("DBuffer_test.receiver"), 0U);
}

TEST_F(Buffer, HandsNothingOverWhenEmpty) {
  DBuffer buffer;
  EXPECT_EQ(buffer.release("DBuffer_test.receiver", __LINE__), nullptr);
  buffer.reserve(10);
  EXPECT_EQ(buffer.release("DBuffer_test.receiver", __LINE__), nullptr);
}

TEST_F(Buffer, IsKeptWhenHandingOverFails) {
  DBuffer buffer("abc", 3);
  ossMemFailAt(1, 0);
  EXPECT_EQ(buffer.release("DBuffer_test.receiver", __LINE__), nullptr);
  EXPECT_EQ(viewOf(buffer), "abc");
}

TEST_F(Buffer, ThrowsAndStaysAsItWasWithoutMemory) {
  DBuffer buffer("abc", 3);
  const std::string longer(1000, 'x');
  ossMemFailAt(1, 1);
  EXPECT_THROW(buffer.append(longer.data(), longer.size()), std::bad_alloc);
  EXPECT_THROW(buffer.assign(longer.data(), longer.size()), std::bad_alloc);
  EXPECT_THROW(buffer.reserve(1000), std::bad_alloc);
  EXPECT_THROW(DBuffer(longer.data(), longer.size()), std::bad_alloc);
  EXPECT_THROW(DBuffer{buffer}, std::bad_alloc);
  EXPECT_EQ(viewOf(buffer), "abc");
}

TEST_F(Buffer, ThrowsForLengthsThatOverflow) {
  DBuffer buffer("abc", 3);
  // Volatile: an optimising compiler that knows the length warns of the copy that is never made.
  volatile std::size_t greatest = std::numeric_limits<std::size_t>::max();
  EXPECT_THROW(buffer.reserve(greatest), std::bad_alloc);
  EXPECT_THROW(buffer.append("x", greatest - 1), std::bad_alloc);
  EXPECT_EQ(viewOf(buffer), "abc");
}

}  // namespace
