// The SQL communication area, byte for byte.
#include "zonmdfile/platform/sqlca.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "zonmdfile/platform/admin.h"

namespace {

class SqlcaFilling : public testing::Test {
 protected:
  SqlcaFilling() { std::memset(&area_, 0xEE, sizeof(area_)); }

  std::string message() const { return {area_.sqlerrmc, static_cast<std::size_t>(area_.sqlerrml)}; }
  std::string state() const { return {area_.sqlstate, sizeof(area_.sqlstate)}; }
  std::string function() const { return {area_.sqlerrp, sizeof(area_.sqlerrp)}; }

  template <std::size_t N>
  void fillWith(const std::array<const char*, N>& tokens) {
    vekFillSqlca(&area_, -22273, "mapMDFileRcToSqlca", static_cast<std::int32_t>(N), tokens.data());
  }

  sqlca area_;
};

TEST_F(SqlcaFilling, WritesEveryByte) {
  vekFillSqlca(&area_, 0, "mapMDFileRcToSqlca", 0, nullptr);
  std::string expected("SQLCA   ");
  expected += std::string("\x88\0\0\0", 4);  // its own size
  expected += std::string(4 + 2 + 70, '\0');
  expected += "mapMDFil";
  expected += std::string(24, '\0');
  expected += std::string(11, ' ');
  expected += "00000";
  ASSERT_EQ(expected.size(), sizeof(area_));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&area_), sizeof(area_)), expected);
}

TEST_F(SqlcaFilling, LeavesNothingOfTheCallersBehindAMessage) {
  fillWith(std::array{"AB"});
  EXPECT_EQ(message(), "AB");
  EXPECT_TRUE(std::all_of(area_.sqlerrmc + 2, area_.sqlerrmc + 70, [](char byte) { return byte == '\0'; }));
}

TEST_F(SqlcaFilling, JoinsTokensByBlanks) {
  fillWith(std::array{"A", "B", "C"});
  EXPECT_EQ(message(), "A B C");
  EXPECT_EQ(area_.sqlcode, -22273);
}

TEST_F(SqlcaFilling, LeavesThePlaceOfANullOrEmptyTokenEmpty) {
  fillWith(std::array<const char*, 2>{nullptr, "K"});
  EXPECT_EQ(message(), " K");
  fillWith(std::array{"K", ""});
  EXPECT_EQ(message(), "K ");
}

TEST_F(SqlcaFilling, CutsTheMessageAt70Bytes) {
  const std::string token(70, 't');
  fillWith(std::array{token.c_str()});
  EXPECT_EQ(message(), token);
  const std::string longer(200, 't');
  fillWith(std::array{longer.c_str(), "K"});
  EXPECT_EQ(message(), token);
  EXPECT_EQ(function(), "mapMDFil");
}

TEST_F(SqlcaFilling, CutsWithinALaterToken) {
  const std::string first(68, 'a');
  fillWith(std::array{first.c_str(), "bcd", "e"});
  EXPECT_EQ(message(), first + " b");
}

TEST_F(SqlcaFilling, CutsAtABlank) {
  const std::string first(69, 'a');
  fillWith(std::array{first.c_str(), "bcd"});
  EXPECT_EQ(message(), first + " ");
}

TEST_F(SqlcaFilling, HasNoMessageWithoutTokens) {
  const std::array<const char*, 1> tokens{"A"};
  for (const std::int32_t count : {0, -1, -2147483647}) {
    vekFillSqlca(&area_, -22271, "f", count, tokens.data());
    EXPECT_EQ(area_.sqlerrml, 0);
  }
  vekFillSqlca(&area_, -22271, "f", 5, nullptr);
  EXPECT_EQ(area_.sqlerrml, 0);
}

TEST_F(SqlcaFilling, PadsTheFunctionsNameWithBlanks) {
  vekFillSqlca(&area_, -22271, "map", 0, nullptr);
  EXPECT_EQ(function(), "map     ");
  vekFillSqlca(&area_, -22271, "", 0, nullptr);
  EXPECT_EQ(function(), "        ");
  vekFillSqlca(&area_, -22271, nullptr, 0, nullptr);
  EXPECT_EQ(function(), "        ");
}

TEST_F(SqlcaFilling, TakesTheWarningOfALossAndKeepsAllElse) {
  vekFillSqlca(&area_, 0, "map", 0, nullptr);
  struct sqlca expected = area_;
  expected.sqlwarn[0] = expected.sqlwarn[7] = 'W';
  vekWarnOfLoss(&area_);
  EXPECT_EQ(std::memcmp(&area_, &expected, sizeof expected), 0);
  vekWarnOfLoss(nullptr);
}

TEST_F(SqlcaFilling, LooksUpTheState) {
  vekFillSqlca(&area_, -22270, "f", 0, nullptr);
  EXPECT_EQ(state(), "23505");
  vekFillSqlca(&area_, -22271, "f", 0, nullptr);
  EXPECT_EQ(state(), "02000");
  vekFillSqlca(&area_, ecfToSqlError(GENREG_RC_LOCK_TIMEOUT), "f", 0, nullptr);
  EXPECT_EQ(state(), "57033");
}

TEST_F(SqlcaFilling, GivesAnUnknownSqlcodeTheGeneralState) {
  vekFillSqlca(&area_, -1, "f", 0, nullptr);
  EXPECT_EQ(area_.sqlcode, -1);
  EXPECT_EQ(state(), "58000");
}

TEST_F(SqlcaFilling, AcceptsANullArea) {
  vekFillSqlca(nullptr, 0, "f", 0, nullptr);
  SUCCEED() << "nothing was written";
}

}  // namespace
