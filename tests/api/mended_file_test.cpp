// A file that is mended from its backup under a call: whoever called sees nothing of it.
#include <gtest/gtest.h>

#include <fstream>
#include <ios>
#include <string>

#include "support/cells.h"
#include "support/groups.h"
#include "support/metadata_test.h"

namespace {

using zontest::Call;
using zontest::insertMember;
using zontest::listOf;

class MendedFile : public zontest::MetadataTest {};

// The damage lies behind records that the same call has changed already.
TEST_F(MendedFile, HasEveryRecordChangedByTheCallThatMendedIt) {
  std::string wanted;
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(insertMember("g", "0", "member" + std::to_string(i), std::string(400, 'd')), 0);
    wanted += "new|";
  }
  const std::string bytes = bytesOf("zoncontactgroup");
  const std::size_t at = bytes.find("member3");
  ASSERT_NE(at, std::string::npos);
  std::fstream(directory_ / "zoncontactgroup", std::ios::in | std::ios::out | std::ios::binary)
      .seekp(static_cast<std::streamoff>(at))
      .put('x');
  Call update;
  update.in("g").in("new").in("2").rc().run(MDContactGroup_updateDescription);
  EXPECT_EQ(update.rcCell(3), 0);
  Call call;
  call.in("g").rc().out().out().out().out().run(MDContactGroup_retrieveList);
  EXPECT_EQ(call.rcCell(1), 0);
  EXPECT_EQ(call.textAt(4), listOf(wanted));
}

}  // namespace
