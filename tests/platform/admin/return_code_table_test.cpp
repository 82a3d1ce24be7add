// The table of return codes against the public header, both ways. The header is read as text, so that no code can be
// forgotten in a list kept here.
#include "platform/admin/return_code_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

#include "zonmdfile/platform/admin.h"

namespace {

using Codes = std::map<std::string, std::uint32_t>;

Codes codesOfHeader() {
  std::ifstream header(ZON_RETURN_CODES_HEADER);
  const std::regex definition(R"(^#define\s+((?:MD|GENREG)_RC_\w+)\s+UINT32_C\((0x[0-9A-Fa-f]+|\d+)\))");
  Codes codes;
  for (std::string line; std::getline(header, line);) {
    std::smatch match;
    if (std::regex_search(line, match, definition)) {
      codes[match[1]] = static_cast<std::uint32_t>(std::stoul(match[2], nullptr, 0));
    }
  }
  return codes;
}

std::size_t definitionsInHeader() {
  std::ifstream header(ZON_RETURN_CODES_HEADER);
  std::size_t count = 0;
  for (std::string line; std::getline(header, line);) count += line.find("#define") == 0 && line.find("_RC_") < 30;
  return count;
}

class ReturnCodeTable : public testing::Test {
 protected:
  const Codes header_ = codesOfHeader();
};

TEST_F(ReturnCodeTable, HoldsEveryCodeOfTheHeader) {
  ASSERT_GT(header_.size(), 30U);
  for (const auto& [name, value] : header_) {
    const zon::ReturnCode* code = zon::findReturnCode(value);
    ASSERT_NE(code, nullptr) << name;
    EXPECT_EQ(code->name, name);
  }
}

TEST_F(ReturnCodeTable, HoldsNoCodeThatTheHeaderDoesNotHave) {
  for (const zon::ReturnCode& code : zon::returnCodes()) {
    const auto found = header_.find(code.name);
    ASSERT_NE(found, header_.end()) << code.name;
    EXPECT_EQ(found->second, code.value) << code.name;
  }
  EXPECT_EQ(zon::returnCodes().size(), header_.size());
}

TEST_F(ReturnCodeTable, IsComparedWithEveryDefinition) { EXPECT_EQ(definitionsInHeader(), header_.size()); }

TEST_F(ReturnCodeTable, HasValuesOfTheirOwn) {
  std::set<std::uint32_t> values;
  for (const zon::ReturnCode& code : zon::returnCodes()) EXPECT_TRUE(values.insert(code.value).second) << code.name;
}

TEST_F(ReturnCodeTable, HasNegativeSqlcodesOfTheirOwn) {
  std::set<std::int32_t> sqlcodes{zon::UNKNOWN_CODE_SQLCODE};
  for (const zon::ReturnCode& code : zon::returnCodes()) {
    EXPECT_TRUE(sqlcodes.insert(code.sqlcode).second) << code.name;
    EXPECT_EQ(code.sqlcode == 0, code.value == MD_RC_OK) << code.name;
    EXPECT_LE(code.sqlcode, 0) << code.name;
  }
}

TEST_F(ReturnCodeTable, KeepsClearOfTheSqlcodesOfTheMappingFunctions) {
  for (const zon::ReturnCode& code : zon::returnCodes()) {
    EXPECT_FALSE(code.sqlcode >= -22273 && code.sqlcode <= -22270) << code.name;
  }
}

TEST_F(ReturnCodeTable, KnowsTheStatesOfTheMappingFunctions) {
  EXPECT_STREQ(zon::findSqlState(-22270), "23505");
  EXPECT_STREQ(zon::findSqlState(-22271), "02000");
  EXPECT_STREQ(zon::findSqlState(-22272), "23505");
  EXPECT_STREQ(zon::findSqlState(-22273), "02000");
}

void expectWellFormed(const char* sqlstate) {
  ASSERT_EQ(std::strlen(sqlstate), 5U) << sqlstate;
  for (const char* character = sqlstate; *character != '\0'; ++character) {
    EXPECT_TRUE((*character >= '0' && *character <= '9') || (*character >= 'A' && *character <= 'Z')) << sqlstate;
  }
}

TEST_F(ReturnCodeTable, HasWellFormedStates) {
  for (const zon::ReturnCode& code : zon::returnCodes()) {
    expectWellFormed(code.sqlstate);
    const bool isSuccess = std::strncmp(code.sqlstate, "00", 2) == 0;
    EXPECT_EQ(isSuccess, code.value == MD_RC_OK) << code.name;
    EXPECT_NE(std::strncmp(code.sqlstate, "01", 2), 0) << code.name << " is no warning";
  }
  for (const zon::SqlState& state : zon::boundarySqlStates()) expectWellFormed(state.sqlstate);
}

TEST_F(ReturnCodeTable, FindsTheStateOfEverySqlcode) {
  for (const zon::ReturnCode& code : zon::returnCodes()) {
    EXPECT_STREQ(zon::findSqlState(code.sqlcode), code.sqlstate) << code.name;
  }
  EXPECT_STREQ(zon::findSqlState(-1), zon::UNKNOWN_SQLCODE_SQLSTATE);
  EXPECT_STREQ(zon::findSqlState(2147483647), zon::UNKNOWN_SQLCODE_SQLSTATE);
}

TEST_F(ReturnCodeTable, DescribesEveryCodeInWordsOfItsOwn) {
  std::set<std::string> descriptions{ecfErrorGetDescription(12345)};
  for (const zon::ReturnCode& code : zon::returnCodes()) {
    const std::string description = code.description;
    EXPECT_TRUE(descriptions.insert(description).second) << code.name;
    EXPECT_GE(std::ranges::count(description, '.'), 2) << code.name << ": what it means, and what to do";
    EXPECT_EQ(description.back(), '.') << code.name;
    EXPECT_EQ(description.find("_RC_"), std::string::npos) << code.name << ": plain words";
    EXPECT_EQ(description.find("  "), std::string::npos) << code.name;
  }
}

TEST(ErrorConversion, GivesZeroForSuccess) { EXPECT_EQ(ecfToSqlError(MD_RC_OK), 0); }

TEST(ErrorConversion, GivesEveryCodeItsSqlcodeNameAndDescription) {
  for (const zon::ReturnCode& code : zon::returnCodes()) {
    EXPECT_EQ(ecfToSqlError(code.value), code.sqlcode);
    EXPECT_STREQ(ecfErrorGetName(code.value), code.name);
    EXPECT_STREQ(ecfErrorGetDescription(code.value), code.description);
  }
}

TEST(ErrorConversion, GivesUnknownCodesOneNegativeSqlcode) {
  for (const std::uint32_t rc : {1U, 31000U, 31008U, 0x900001F8U, 0xFFFFFFFFU}) {
    EXPECT_EQ(ecfToSqlError(rc), zon::UNKNOWN_CODE_SQLCODE);
    EXPECT_EQ(ecfErrorGetName(rc), nullptr);
  }
  EXPECT_LT(zon::UNKNOWN_CODE_SQLCODE, 0);
}

TEST(ErrorConversion, SaysThatACodeIsNotKnownAndWhatToDo) {
  const std::string description = ecfErrorGetDescription(0x12345678);
  EXPECT_NE(description.find("not known"), std::string::npos);
  EXPECT_NE(description.find("Check"), std::string::npos);
}

}  // namespace
