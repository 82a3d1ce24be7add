// Strings: stored bytes, positions from 1, and what lies at the ends.
#include "zonmdfile/platform/DString.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "zonmdfile/platform/oss.h"

namespace {

const char* const NO_TEXT = nullptr;

class String : public testing::Test {
 protected:
  void TearDown() override { ossMemFailAt(0, 0); }
};

static_assert(!std::is_convertible_v<char, DString>, "a character must not become a string by itself");
static_assert(std::is_convertible_v<const char*, DString>);
static_assert(std::is_nothrow_move_constructible_v<DString> && std::is_nothrow_move_assignable_v<DString>);
static_assert(!std::is_polymorphic_v<DString>);

TEST_F(String, IsEmptyWithoutAllocatingAnything) {
  const std::uint64_t before = ossMemAllocationCount();
  const DString empty;
  const DString fromNull(NO_TEXT);
  const DString fromEmptyText("");
  const DString copy(empty);
  EXPECT_STREQ(empty.c_str(), "");
  EXPECT_STREQ(fromNull.c_str(), "");
  EXPECT_EQ(fromEmptyText.length() + copy.length() + fromNull.length(), 0U);
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_EQ(ossMemAllocationCount(), before);
}

TEST_F(String, IsMadeFromTextCharacterAndBytes) {
  EXPECT_STREQ(DString("abc").c_str(), "abc");
  EXPECT_STREQ(DString('x').c_str(), "x");
  EXPECT_STREQ(DString("abcdef", 3).c_str(), "abc");
  EXPECT_STREQ(DString(std::string_view("abc")).c_str(), "abc");
  EXPECT_EQ(DString(nullptr, 0).length(), 0U);
}

TEST_F(String, HoldsANulCharacter) {
  const DString text('\0');
  EXPECT_EQ(text.length(), 1U);
  EXPECT_FALSE(text == "");
}

TEST_F(String, CountsANulAsAByteLikeAnyOther) {
  const DString text("ab\0cd", 5);
  EXPECT_EQ(text.length(), 5U);
  EXPECT_EQ(text.indexOf("c"), 4U);
  EXPECT_EQ(text.indexOf('\0'), 3U);
  EXPECT_EQ(text.occurrencesOf('\0'), 1U);
  EXPECT_EQ(text.subString(3).length(), 3U);
  EXPECT_EQ(text, DString("ab\0cd", 5));
  EXPECT_NE(text, DString("ab\0cx", 5));
  EXPECT_NE(text, "ab");
}

TEST_F(String, CopiesAreIndependent) {
  DString original("abc");
  DString copy(original);
  copy += "d";
  EXPECT_EQ(original, "abc");
  original = copy;
  copy.clear();
  EXPECT_EQ(original, "abcd");
}

TEST_F(String, LeavesTheEmptyStringBehindWhenMoved) {
  DString source("abc");
  const DString target(std::move(source));
  EXPECT_EQ(target, "abc");
  EXPECT_EQ(source, "");  // NOLINT: the state after a move is promised
  source = "again";
  EXPECT_EQ(source, "again");
}

TEST_F(String, IsAssignedTextNullAndItself) {
  DString text("abc");
  text = "a longer text that does not fit into the first block of the string";
  EXPECT_EQ(text.length(), 66U);
  volatile std::size_t lastWord = 63;  // hidden from the optimiser, which takes the empty string into account and warns
  text = text.c_str() + lastWord;
  EXPECT_EQ(text, "ing");
  DString& same = text;
  text = same;
  EXPECT_EQ(text, "ing");
  text = NO_TEXT;
  EXPECT_EQ(text, "");
}

TEST_F(String, AppendsTextCharacterStringAndBytes) {
  DString text;
  text += "ab";
  text += 'c';
  text += DString("de");
  text += NO_TEXT;
  text.append("f\0g", 3).append(std::string_view("h"));
  EXPECT_EQ(text, DString("abcdef\0gh", 9));
}

TEST_F(String, AppendsItself) {
  DString text("abc");
  for (int i = 0; i < 5; ++i) text += text;
  EXPECT_EQ(text.length(), 96U);
  EXPECT_EQ(text.occurrencesOf("abc"), 32U);
}

TEST_F(String, ConcatenatesEveryPair) {
  const DString left("ab");
  const DString right("cd");
  EXPECT_EQ(left + right, "abcd");
  EXPECT_EQ(left + "x", "abx");
  EXPECT_EQ("x" + left, "xab");
  EXPECT_EQ(left + 'x', "abx");
  EXPECT_EQ('x' + left, "xab");
  EXPECT_EQ(left + NO_TEXT, "ab");
  EXPECT_EQ(NO_TEXT + left, "ab");
  EXPECT_EQ(left + right + left + "e", "abcdabe");
}

TEST_F(String, ComparesStoredBytes) {
  const DString text("abc");
  EXPECT_TRUE(text == DString("abc"));
  EXPECT_TRUE("abc" == text);
  EXPECT_TRUE(text != "abd");
  EXPECT_TRUE("ab" != text);
  EXPECT_TRUE(text != DString("abcd"));
  EXPECT_FALSE(text != DString("abc"));
  EXPECT_TRUE(DString() == "");
  EXPECT_TRUE(DString() == NO_TEXT);
  EXPECT_TRUE(text != NO_TEXT);
  EXPECT_TRUE(DString("\xC3\xA4") != DString("\xC3\xB6"));
}

TEST_F(String, CutsOutByPositionsFromOne) {
  const DString text("abcdef");
  EXPECT_EQ(text.subString(1), "abcdef");
  EXPECT_EQ(text.subString(1, 3), "abc");
  EXPECT_EQ(text.subString(3, 2), "cd");
  EXPECT_EQ(text.subString(6, 1), "f");
  EXPECT_EQ(text.subString(6), "f");
  EXPECT_EQ(text.subString(4, 100), "def");
  EXPECT_EQ(text.subString(2, DString::TO_END), "bcdef");
  EXPECT_EQ(text.subString(2, 0), "");
}

TEST_F(String, HasNothingAtPositionsThatItDoesNotHave) {
  const DString text("abcdef");
  EXPECT_EQ(text.subString(0), "");
  EXPECT_EQ(text.subString(7), "");
  EXPECT_EQ(text.subString(DString::TO_END, 5), "");
  EXPECT_EQ(DString().subString(1), "");
}

TEST_F(String, FindsTheFirstOccurrenceFromAStart) {
  const DString text("abcabc");
  EXPECT_EQ(text.indexOf("abc"), 1U);
  EXPECT_EQ(text.indexOf("abc", 2), 4U);
  EXPECT_EQ(text.indexOf("abc", 4), 4U);
  EXPECT_EQ(text.indexOf("abc", 5), 0U);
  EXPECT_EQ(text.indexOf('c'), 3U);
  EXPECT_EQ(text.indexOf('c', 6), 6U);
  EXPECT_EQ(text.indexOf(DString("cab")), 3U);
  EXPECT_EQ(text.indexOf(text), 1U);
}

TEST_F(String, AnswersZeroWhenNothingIsFound) {
  const DString text("abcabc");
  EXPECT_EQ(text.indexOf("x"), 0U);
  EXPECT_EQ(text.indexOf("abcabca"), 0U);
  EXPECT_EQ(text.indexOf("a", 0), 0U);
  EXPECT_EQ(text.indexOf("a", 7), 0U);
  EXPECT_EQ(text.indexOf("c", DString::TO_END), 0U);
  EXPECT_EQ(text.indexOf(""), 0U);
  EXPECT_EQ(text.indexOf(NO_TEXT), 0U);
  EXPECT_EQ(DString().indexOf("a"), 0U);
}

TEST_F(String, CountsOccurrencesFromAStart) {
  const DString text("a|b||c|");
  EXPECT_EQ(text.occurrencesOf("|"), 4U);
  EXPECT_EQ(text.occurrencesOf('|'), 4U);
  EXPECT_EQ(text.occurrencesOf(DString("|")), 4U);
  EXPECT_EQ(text.occurrencesOf("|", 2), 4U);
  EXPECT_EQ(text.occurrencesOf("|", 3), 3U);
  EXPECT_EQ(text.occurrencesOf("|", 7), 1U);
  EXPECT_EQ(text.occurrencesOf("|", 8), 0U);
  EXPECT_EQ(text.occurrencesOf("|", 0), 0U);
  EXPECT_EQ(text.occurrencesOf("||"), 1U);
}

TEST_F(String, CountsOccurrencesThatDoNotOverlap) {
  EXPECT_EQ(DString("aaaa").occurrencesOf("aa"), 2U);
  EXPECT_EQ(DString("aaaaa").occurrencesOf("aa"), 2U);
  EXPECT_EQ(DString("aaaaa").occurrencesOf("aa", 2), 2U);
}

TEST_F(String, CountsNoOccurrenceOfTheEmptyText) {
  EXPECT_EQ(DString("abc").occurrencesOf(""), 0U);
  EXPECT_EQ(DString("abc").occurrencesOf(NO_TEXT), 0U);
  EXPECT_EQ(DString().occurrencesOf("a"), 0U);
}

TEST_F(String, RemovesByPositionsFromOne) {
  EXPECT_EQ(DString("abcdef").remove(1, 2), "cdef");
  EXPECT_EQ(DString("abcdef").remove(3, 2), "abef");
  EXPECT_EQ(DString("abcdef").remove(6, 1), "abcde");
  EXPECT_EQ(DString("abcdef").remove(4), "abc");
  EXPECT_EQ(DString("abcdef").remove(4, 100), "abc");
  EXPECT_EQ(DString("abcdef").remove(1), "");
  EXPECT_EQ(DString("abcdef").remove(2, 0), "abcdef");
}

TEST_F(String, RemovesNothingAtPositionsThatItDoesNotHave) {
  EXPECT_EQ(DString("abcdef").remove(0, 3), "abcdef");
  EXPECT_EQ(DString("abcdef").remove(7, 3), "abcdef");
  EXPECT_EQ(DString().remove(1), "");
}

TEST_F(String, GrowsToAListingWithFewAllocations) {
  DString listing;
  const std::uint64_t before = ossMemAllocationCount();
  for (int i = 0; i < 1'000'000; ++i) {
    listing += "ZONCONTACT.NAME.0000000001";
    listing += '\x0E';
  }
  EXPECT_EQ(listing.length(), 27'000'000U);
  EXPECT_EQ(listing.occurrencesOf('\x0E'), 1'000'000U);
  EXPECT_LE(ossMemAllocationCount() - before, 24U);
}

TEST_F(String, HandsItsTextOverAndIsEmptyThen) {
  DString text("abc");
  void* released = text.release("DString_test.receiver", __LINE__);
  EXPECT_STREQ(static_cast<const char*>(released), "abc");
  EXPECT_EQ(ossMemOutstandingBytes("DString_test.receiver"), 4U);
  EXPECT_TRUE(text.isEmpty());
  EXPECT_EQ(text.release("DString_test.receiver", __LINE__), nullptr);
  _ossMemFree(&released, 0, 0, "DString_test", __LINE__);
}

TEST_F(String, ThrowsAndStaysAsItWasWithoutMemory) {
  DString text("abc");
  const std::string longer(1000, 'x');
  ossMemFailAt(1, 1);
  EXPECT_THROW(text += longer.c_str(), std::bad_alloc);
  EXPECT_THROW(text = longer.c_str(), std::bad_alloc);
  EXPECT_THROW(DString{text}, std::bad_alloc);
  EXPECT_THROW(text.subString(1), std::bad_alloc);
  EXPECT_THROW(text + "d", std::bad_alloc);
  ossMemFailAt(0, 0);
  EXPECT_EQ(text, "abc");
}

TEST_F(String, EqualStringsHaveEqualHashes) {
  const std::hash<DString> hash;
  EXPECT_EQ(hash(DString("ab\0c", 4)), hash(DString("ab\0c", 4)));
  EXPECT_NE(hash(DString("ab\0c", 4)), hash(DString("ab\0d", 4)));
}

}  // namespace
