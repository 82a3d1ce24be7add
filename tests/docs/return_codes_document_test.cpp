// docs/return-codes.md against the table of return codes. The rule: a row of the document is made here from the table,
// so that the failure of a test shows the row that has to be written.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "platform/admin/return_code_table.h"

namespace {

constexpr std::uint32_t FIRST_ENGINE_CODE = 0x90000000;

std::string rowOf(const zon::ReturnCode& code) {
  char value[32];
  std::snprintf(value, sizeof value, code.value < FIRST_ENGINE_CODE ? "%u" : "0x%08X", code.value);
  std::ostringstream row;
  row << "| `" << code.name << "` | " << value << " | " << code.sqlcode << " | " << code.sqlstate << " | "
      << code.description << " |";
  return row.str();
}

class ReturnCodesDocument : public testing::Test {
 protected:
  ReturnCodesDocument() {
    std::ifstream document(ZON_RETURN_CODES_DOCUMENT);
    for (std::string line; std::getline(document, line);) {
      if (line.rfind("| `MD_RC_", 0) == 0 || line.rfind("| `GENREG_RC_", 0) == 0) rows_.insert(line);
    }
  }

  std::multiset<std::string> rows_;
};

TEST_F(ReturnCodesDocument, HasTheRowOfEveryCode) {
  for (const zon::ReturnCode& code : zon::returnCodes()) {
    EXPECT_EQ(rows_.count(rowOf(code)), 1U) << rowOf(code);
  }
}

TEST_F(ReturnCodesDocument, HasNoOtherRows) { EXPECT_EQ(rows_.size(), zon::returnCodes().size()); }

}  // namespace
