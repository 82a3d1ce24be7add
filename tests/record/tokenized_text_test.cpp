// The walk over lists gives what the parser gives for the fields 1, 2, 3, ..., for every text.
#include "record/tokenized_text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "support/metadata_test.h"
#include "zonmdfile/MDStringParser.h"

namespace {

using zontest::listOf;

TEST(ListReader, AgreesWithTheParserOnAnyText) {
  std::mt19937 random(20);
  MDStringParser parser;
  for (int round = 0; round < 2000; ++round) {
    std::string text;
    for (std::size_t length = random() % 12; length > 0; --length) text += "ab|"[random() % 3];
    DString source(listOf(text));
    zon::ListReader reader(source);
    for (unsigned long index = 1; index <= 14; ++index) {
      DString field;
      std::string_view entry;
      const std::uint32_t expected = parser.parseTokenizedString(source, DString(char{0x0E}), index, field);
      ASSERT_EQ(reader.next(entry), expected) << text << " field " << index;
      ASSERT_EQ(entry, field.view()) << text << " field " << index;
    }
  }
}

// The parser's rules told as a loop over splits, without the short cut for texts that no longer change.
TEST(ParseText, AgreesWithSplittingFieldByField) {
  std::mt19937 random(21);
  for (int round = 0; round < 2000; ++round) {
    std::string source;
    for (std::size_t length = random() % 10; length > 0; --length) source += "ab--"[random() % 4];
    const std::string token = random() % 4 == 0 ? "--" : "-";
    std::string_view work = source;
    std::string_view head;
    std::string_view rest;
    for (unsigned long index = 1; index <= 12; ++index) {
      const std::uint32_t expected = zon::splitText(work, token, head, rest);
      work = rest;
      std::string_view field;
      ASSERT_EQ(zon::parseText(source, token, index, field), expected) << source << " field " << index;
      ASSERT_EQ(field, head) << source << " field " << index;
    }
  }
}

TEST(CountEntries, CountsSeparators) {
  EXPECT_EQ(zon::countEntries(""), 0U);
  EXPECT_EQ(zon::countEntries(listOf("a|b|")), 2U);
  EXPECT_EQ(zon::countEntries(listOf("||")), 2U);
}

}  // namespace
