// MDStringParser as its callers see it. In these tests | stands for the list separator.
#include "zonmdfile/MDStringParser.h"

#include <gtest/gtest.h>

#include "support/metadata_test.h"
#include "zonmdfile/platform/return_codes.h"

namespace {

using zontest::listOf;
using zontest::textOf;

struct Parsed {
  std::uint32_t rc;
  std::string field;
  bool operator==(const Parsed&) const = default;
};

void PrintTo(const Parsed& parsed, std::ostream* out) { *out << parsed.rc << " '" << parsed.field << "'"; }

class StringParser : public testing::Test {
 protected:
  Parsed parse(const std::string& source, unsigned long index, const DString& token = DString(char{0x0E})) {
    DString text(listOf(source));
    DString field("stale");
    const std::uint32_t rc = parser_.parseTokenizedString(text, token, index, field);
    return {rc, textOf(field)};
  }
  std::uint32_t count(const std::string& source) {
    DString text(listOf(source));
    return parser_.occurrencesOfToken(text, DString(char{0x0E}));
  }

  MDStringParser parser_;
};

TEST_F(StringParser, PicksFieldsByNumber) {
  EXPECT_EQ(parse("red|green|blue", 1), (Parsed{0, "red"}));
  EXPECT_EQ(parse("red|green|blue", 2), (Parsed{0, "green"}));
  EXPECT_EQ(parse("red|green|blue", 3), (Parsed{0, "blue"}));
}

TEST_F(StringParser, RepeatsTheLastFieldBeyondTheEnd) {
  EXPECT_EQ(parse("red|green|blue", 4), (Parsed{0, "blue"}));
  EXPECT_EQ(parse("red|green|blue", 4'000'000'000UL), (Parsed{0, "blue"}));
}

TEST_F(StringParser, FieldZeroIsEmpty) { EXPECT_EQ(parse("red|green|blue", 0), (Parsed{0, ""})); }

TEST_F(StringParser, KeepsEmptyFieldsInTheMiddle) {
  EXPECT_EQ(parse("a||b", 2), (Parsed{0, ""}));
  EXPECT_EQ(parse("a||b", 3), (Parsed{0, "b"}));
  EXPECT_EQ(count("a||b"), 2U);
}

TEST_F(StringParser, KeepsAnEmptyFirstField) {
  EXPECT_EQ(parse("|a", 1), (Parsed{0, ""}));
  EXPECT_EQ(parse("|a", 2), (Parsed{0, "a"}));
}

TEST_F(StringParser, MissesTheFieldBehindATokenAtTheEnd) {
  EXPECT_EQ(parse("a|b|", 3), (Parsed{MD_RC_TOKEN_MISSING, "b"}));
  EXPECT_EQ(parse("a|b|", 9), (Parsed{MD_RC_TOKEN_MISSING, "b"}));
  EXPECT_EQ(count("a|b|"), 2U);
}

TEST_F(StringParser, FindsNothingInAnEmptySource) {
  EXPECT_EQ(count(""), 0U);
  EXPECT_EQ(parse("", 1), (Parsed{MD_RC_TOKEN_MISSING, ""}));
  EXPECT_EQ(parse("", 2), (Parsed{MD_RC_TOKEN_MISSING, ""}));
  EXPECT_EQ(parse("", 0), (Parsed{0, ""}));
}

TEST_F(StringParser, GivesASourceWithoutTokenWhole) {
  EXPECT_EQ(count("abc"), 0U);
  EXPECT_EQ(parse("abc", 1), (Parsed{0, "abc"}));
}

TEST_F(StringParser, RefusesAnEmptyToken) {
  EXPECT_EQ(parse("abc", 1, DString()), (Parsed{MD_RC_TOKEN_MISSING, ""}));
  EXPECT_EQ(parse("", 1, DString()), (Parsed{MD_RC_TOKEN_MISSING, ""}));
  DString source("abc");
  DString head("head");
  DString rest("rest");
  EXPECT_EQ(parser_.splitTokenizedString(source, DString(), head, rest), MD_RC_TOKEN_MISSING);
  EXPECT_EQ(textOf(head), "head");
  EXPECT_EQ(textOf(rest), "rest");
}

TEST_F(StringParser, SplitOfAnEmptySourceLeavesOutputsUntouched) {
  DString source;
  DString head("head");
  DString rest("rest");
  EXPECT_EQ(parser_.splitTokenizedString(source, DString('|'), head, rest), MD_RC_TOKEN_MISSING);
  EXPECT_EQ(textOf(head), "head");
  EXPECT_EQ(textOf(rest), "rest");
}

TEST_F(StringParser, SplitWithoutTokenGivesTheSourceTwice) {
  DString source("abc");
  DString head;
  DString rest;
  EXPECT_EQ(parser_.splitTokenizedString(source, DString('|'), head, rest), 0U);
  EXPECT_EQ(textOf(head), "abc");
  EXPECT_EQ(textOf(rest), "abc");
}

TEST_F(StringParser, SplitLeavesAllButTheFirstByteOfALongTokenInTheRest) {
  DString source("a--b");
  DString head;
  DString rest;
  EXPECT_EQ(parser_.splitTokenizedString(source, DString("--"), head, rest), 0U);
  EXPECT_EQ(textOf(head), "a");
  EXPECT_EQ(textOf(rest), "-b");
}

TEST_F(StringParser, SplitMayWriteToItsOwnSource) {
  DString source("a|b|c");
  DString head;
  EXPECT_EQ(parser_.splitTokenizedString(source, DString('|'), head, source), 0U);
  EXPECT_EQ(textOf(head), "a");
  EXPECT_EQ(textOf(source), "b|c");
  EXPECT_EQ(parser_.parseTokenizedString(source, DString('|'), 2, source), 0U);
  EXPECT_EQ(textOf(source), "c");
}

TEST_F(StringParser, CountsWithTheTokenUpToItsNul) {
  DString source("a|b|c");
  EXPECT_EQ(parser_.occurrencesOfToken(source, DString("|\0x", 3)), 2U);
  EXPECT_EQ(parser_.occurrencesOfToken(source, DString()), 0U);
}

TEST_F(StringParser, TellsALackOfMemoryAndLeavesTheOutputs) {
  DString source(listOf(std::string(100, 'a') + "|" + std::string(100, 'b')).c_str());
  DString head("stale");
  DString rest("stale");
  for (const std::uint64_t n : {2U, 3U}) {  // the first is the copy of the token
    const zontest::MemoryFault fault(n);
    EXPECT_EQ(parser_.splitTokenizedString(source, DString(char{0x0E}), head, rest), GENREG_RC_NO_MEMORY);
  }
  {
    const zontest::MemoryFault fault(2);
    EXPECT_EQ(parser_.parseTokenizedString(source, DString(char{0x0E}), 1, head), GENREG_RC_NO_MEMORY);
  }
  EXPECT_EQ(textOf(head) + textOf(rest), "stalestale");
}

}  // namespace
