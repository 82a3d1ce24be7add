// The mapping of return codes to SQLCODEs, and what the SQLCA receives.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "zonmdfile/platform/admin.h"
#include "zonmdfile/zonmdfile.h"

namespace {

class SqlcaMapping : public testing::Test {
 protected:
  std::int32_t map(std::uint64_t rc, std::int32_t count, const char* const* tokens, std::uint32_t kind) {
    sqlca_.sqlerrml = 99;
    return mapMDFileRcToSqlca(rc, count, tokens, kind, &sqlca_);
  }
  // The message for a missing record with these tokens.
  template <class... Tokens>
  std::string messageOf(Tokens... tokens) {
    const char* const array[] = {tokens...};
    map(GENREG_RC_NOT_FOUND, sizeof...(Tokens), array, 0);
    return message();
  }
  std::string message() const { return {sqlca_.sqlerrmc, static_cast<std::size_t>(sqlca_.sqlerrml)}; }

  struct sqlca sqlca_ {};
};

TEST_F(SqlcaMapping, SuccessFillsTheSqlcaWithoutTokens) {
  const char* const tokens[] = {"key"};
  EXPECT_EQ(map(0, 1, tokens, 1), 0);
  EXPECT_EQ(std::string(sqlca_.sqlcaid, 8), "SQLCA   ");
  EXPECT_EQ(sqlca_.sqlcode, 0);
  EXPECT_EQ(sqlca_.sqlerrml, 0);
  EXPECT_EQ(std::string(sqlca_.sqlstate, 5), "00000");
}

TEST_F(SqlcaMapping, MissingRecordCarriesBothTokens) {
  const char* const tokens[] = {"A", "B"};
  EXPECT_EQ(map(GENREG_RC_NOT_FOUND, 2, tokens, 0), -22273);
  EXPECT_EQ(sqlca_.sqlcode, -22273);
  EXPECT_EQ(message(), "A B");
}

TEST_F(SqlcaMapping, EachCodeHasItsContactFlavour) {
  EXPECT_EQ(mapMDFileRcToSqlcode(GENREG_RC_DUPLICATE_KEY, 1), -22270);
  EXPECT_EQ(mapMDFileRcToSqlcode(GENREG_RC_NOT_FOUND, 1), -22271);
  EXPECT_EQ(mapMDFileRcToSqlcode(GENREG_RC_DUPLICATE_KEY, 0), -22272);
  EXPECT_EQ(mapMDFileRcToSqlcode(GENREG_RC_NOT_FOUND, 0), -22273);
  EXPECT_EQ(mapMDFileRcToSqlcode(0, 0), 0);
  EXPECT_EQ(mapMDFileRcToSqlcode(0, 1), 0);
}

TEST_F(SqlcaMapping, OnlySubjectKindOneMeansContacts) {
  EXPECT_EQ(map(GENREG_RC_DUPLICATE_KEY, 0, nullptr, 2), -22272);
  EXPECT_EQ(mapMDFileRcToSqlcode(GENREG_RC_NOT_FOUND, 0xFFFFFFFF), -22273);
}

TEST_F(SqlcaMapping, OtherCodesReachTheSqlcaWithoutTokens) {
  const char* const tokens[] = {"key"};
  for (const std::uint32_t rc : {MD_RC_KEY_TOO_LONG, MD_RC_NO_DATA, GENREG_RC_NO_MEMORY, GENREG_RC_MEMBER_ABSENT}) {
    EXPECT_EQ(map(rc, 1, tokens, 0), ecfToSqlError(rc));
    EXPECT_EQ(sqlca_.sqlcode, ecfToSqlError(rc));
    EXPECT_EQ(sqlca_.sqlerrml, 0);
  }
}

TEST_F(SqlcaMapping, CutsATokenAt128Bytes) {
  // The SQLCA holds 70 bytes of the message; what was cut shows by where the second token would begin.
  const std::string longToken = std::string(128, 'x') + std::string(72, 'y');
  EXPECT_EQ(messageOf(longToken.c_str()), std::string(70, 'x'));
}

TEST_F(SqlcaMapping, NullTokenLeavesItsPlaceEmpty) {
  EXPECT_EQ(messageOf(static_cast<const char*>(nullptr), "K"), " K");
  EXPECT_EQ(messageOf("K", static_cast<const char*>(nullptr)), "K ");
}

TEST_F(SqlcaMapping, EmptyTokenLeavesItsPlaceEmpty) {
  EXPECT_EQ(messageOf("", "K"), " K");
  EXPECT_EQ(messageOf("K", ""), "K ");
}

TEST_F(SqlcaMapping, SingleEmptyTokenIsNoMessage) {
  EXPECT_EQ(messageOf(""), "");
  EXPECT_EQ(messageOf(static_cast<const char*>(nullptr)), "");
}

TEST_F(SqlcaMapping, JoinsThreeTokens) { EXPECT_EQ(messageOf("A", "B", "C"), "A B C"); }

TEST_F(SqlcaMapping, JoinsAsManyTokensAsThereAre) {
  EXPECT_EQ(messageOf("A", "B", "C", "D", "E"), "A B C D E");
  const char* const null = nullptr;
  EXPECT_EQ(messageOf(null, null, null, null, "E"), "    E");
}

TEST_F(SqlcaMapping, ReadsNoTokenForWhichThereIsNoRoom) {
  const std::string whole(128, 'x');
  const char* const tokens[] = {whole.c_str(), whole.c_str(), whole.c_str()};  // 386 bytes with their blanks
  map(GENREG_RC_NOT_FOUND, INT_MAX, tokens, 0);
  EXPECT_EQ(message(), std::string(70, 'x'));
}

TEST_F(SqlcaMapping, NegativeTokenCountIsNone) {
  const char* const tokens[] = {"A"};
  map(GENREG_RC_NOT_FOUND, -1, tokens, 0);
  EXPECT_EQ(message(), "");
  map(GENREG_RC_NOT_FOUND, INT_MIN, tokens, 0);
  EXPECT_EQ(message(), "");
}

TEST_F(SqlcaMapping, NullTokenArrayIsNoMessage) {
  EXPECT_EQ(map(GENREG_RC_NOT_FOUND, 2, nullptr, 0), -22273);
  EXPECT_EQ(message(), "");
}

TEST_F(SqlcaMapping, LooksAtTheLowHalfOfTheCodeOnly) {
  EXPECT_EQ(map(0xFFFFFFFF'900001F6ULL, 0, nullptr, 0), -22273);
  EXPECT_EQ(map(0x00000001'00000000ULL, 0, nullptr, 0), 0);
}

TEST_F(SqlcaMapping, ReportsItsOwnName) {
  map(GENREG_RC_NOT_FOUND, 0, nullptr, 0);
  EXPECT_EQ(std::string(sqlca_.sqlerrp, 8), "mapMDFil");
}

TEST_F(SqlcaMapping, NullSqlcaIsAllowed) {
  EXPECT_EQ(mapMDFileRcToSqlca(GENREG_RC_NOT_FOUND, 0, nullptr, 0, nullptr), -22273);
}

}  // namespace
