// The combined contact-group interface. support/groups.h tells how groups are written; | stands for the list separator.
#include <gtest/gtest.h>

#include <string>

#include "support/cells.h"
#include "support/groups.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::insertGroups;
using zontest::insertMember;
using zontest::listOf;

constexpr std::int32_t MISSING = -22271;

class CombinedContactGroup : public zontest::MetadataTest {
 protected:
  static Call& addOutputs(Call& call, int count) {
    for (int i = 0; i < count; ++i) call.out();
    return call;
  }
  Call& retrieveNames(Call& call, const std::string& group, std::uint32_t detail, int outputs) {
    return addOutputs(call.in(group).number(detail).number(), outputs).run(ContactGroupAPI_retrieveAllContactNames);
  }
  Call& retrieveList(Call& call, const std::string& group, std::uint32_t detail, int outputs) {
    return addOutputs(call.number(detail).in(group).number(), outputs).run(ContactGroupAPI_retrieveList);
  }
  Call& retrieveAll(Call& call, std::uint32_t detail, int outputs) {
    return addOutputs(call.number(detail).number(), outputs).run(ContactGroupAPI_retrieveAll);
  }
};

TEST_F(CombinedContactGroup, NamesFillOneCellEach) {
  insertGroups("g:a g>h h:b");
  Call call;
  retrieveNames(call, "g", 1, 3);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(2), 2U);
  EXPECT_EQ(call.textAt(3), "a");
  EXPECT_EQ(call.textAt(4), "b");
  EXPECT_TRUE(call.isUntouched(5));
}

TEST_F(CombinedContactGroup, NamesWithoutDetailAreCountedOnly) {
  insertGroups("g:a g:b");
  Call call;
  retrieveNames(call, "g", 0, 2);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(2), 2U);
  EXPECT_TRUE(call.areOutputsUntouched());
}

// The count cell is read anew before each name. Here it is the length of the first name's cell, which grows from 1
// to 6.
TEST_F(CombinedContactGroup, NamesRepeatTheLastOneWhenAnOutputRaisesTheCount) {
  insertGroups("g:alpha");
  zonInputCell group{0, "g"};
  std::uint32_t detail = 1;
  zonOutputCell names[6] = {};
  void* block[] = {&group, &detail, &names[0].length, &names[0], &names[1], &names[2], &names[3], &names[4], &names[5]};
  struct sqlca sqlca {};
  ContactGroupAPI_retrieveAllContactNames(nullptr, block, &sqlca);
  EXPECT_EQ(sqlca.sqlcode, 0);
  for (zonOutputCell& name : names) {
    EXPECT_STREQ(name.text, "alpha");
    void* text = name.text;
    _ossMemFree(&text, 0, 0, "test", 0);
  }
}

TEST_F(CombinedContactGroup, NamesStopWhenAnOutputLowersTheCount) {
  insertGroups("g:a g:b g:c");
  zonInputCell group{0, "g"};
  std::uint32_t detail = 1;
  zonOutputCell names[3] = {};
  void* block[] = {&group, &detail, &names[0].length, &names[0], &names[1], &names[2]};
  struct sqlca sqlca {};
  const zontest::MemoryAccount account("MDRegFactory");
  ContactGroupAPI_retrieveAllContactNames(nullptr, block, &sqlca);
  EXPECT_EQ(account.buffers(), 2U);
  EXPECT_STREQ(names[1].text, "b");
  EXPECT_EQ(names[2].text, nullptr);
  for (int i = 0; i < 2; ++i) {
    void* text = names[i].text;
    _ossMemFree(&text, 0, 0, "test", 0);
  }
}

TEST_F(CombinedContactGroup, NamesOfAnUnknownGroupReportNoData) {
  const zontest::MemoryAccount account(nullptr);
  {
    Call call;
    retrieveNames(call, "nobody", 1, 1);
    EXPECT_EQ(call.sqlcode(), ecfToSqlError(MD_RC_NO_DATA));
    EXPECT_EQ(call.message(), "");
    EXPECT_EQ(call.numberAt(2), Call::MARK_NUMBER);
    EXPECT_TRUE(call.areOutputsUntouched());
  }
  EXPECT_EQ(account.buffers(), 0U);
}

TEST_F(CombinedContactGroup, NamesReportNoDataWhateverFailed) {
  blockFile("zoncontactgroup");
  Call call;
  retrieveNames(call, "g", 1, 1);
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(MD_RC_NO_DATA));
}

TEST_F(CombinedContactGroup, ListFillsDescriptionAndPairsOfKindAndMember) {
  ASSERT_EQ(insertMember("g1", "0", "a", "first"), 0);
  ASSERT_EQ(insertMember("g2", "0", "c", "second"), 0);
  ASSERT_EQ(insertMember("g1", "1", "b", "first"), 0);
  Call call;
  retrieveList(call, "g1", 1, 5);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(2), 2U);
  EXPECT_EQ(call.textAt(3), "first");
  EXPECT_EQ(call.textAt(4) + call.textAt(5), "0a");
  EXPECT_EQ(call.textAt(6) + call.textAt(7), "1b");
}

TEST_F(CombinedContactGroup, ListWithoutDetailGivesCountAndDescription) {
  insertGroups("g:a g:b");
  Call call;
  retrieveList(call, "g", 0, 5);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(2), 2U);
  EXPECT_EQ(call.textAt(3), "d");
  EXPECT_TRUE(call.isUntouched(4));
}

TEST_F(CombinedContactGroup, ListWorksWithoutACountCell) {
  insertGroups("g:a");
  Call call;
  addOutputs(call.number(1).in("g").null(), 3).run(ContactGroupAPI_retrieveList);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.textAt(4) + call.textAt(5), "0a");
}

TEST_F(CombinedContactGroup, ListOfAnUnknownGroupNamesIt) {
  Call call;
  retrieveList(call, "nobody", 1, 3);
  EXPECT_EQ(call.sqlcode(), MISSING);
  EXPECT_EQ(call.message(), "nobody");
  EXPECT_EQ(call.numberAt(2), Call::MARK_NUMBER);
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(CombinedContactGroup, ListReadsOverASeparatorInAMemberName) {
  ASSERT_EQ(insertMember("g", "0", listOf("a|b")), 0);
  Call call;
  retrieveList(call, "g", 1, 5);
  EXPECT_EQ(call.numberAt(2), 2U);
  EXPECT_EQ(call.textAt(5), "a");
  EXPECT_EQ(call.textAt(7), "b");
  EXPECT_EQ(call.textAt(6), "0");  // the kinds have one entry less; the last one is given again
}

TEST_F(CombinedContactGroup, AllGroupsFillPairsOfNameAndDescription) {
  ASSERT_EQ(insertMember("g1", "0", "a", "first"), 0);
  ASSERT_EQ(insertMember("g1", "0", "b", "first"), 0);
  ASSERT_EQ(insertMember("g2", "0", "c", "second"), 0);
  Call call;
  retrieveAll(call, 1, 5);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 2U);
  EXPECT_EQ(call.textAt(2) + " " + call.textAt(3), "g1 first");
  EXPECT_EQ(call.textAt(4) + " " + call.textAt(5), "g2 second");
  EXPECT_TRUE(call.isUntouched(6));
}

TEST_F(CombinedContactGroup, AllGroupsWithoutDetailAreCountedOnly) {
  insertGroups("g1:a g1:b g2:c");
  Call call;
  retrieveAll(call, 0, 4);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 2U);
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(CombinedContactGroup, EmptyFileIsACountOf0) {
  Call call;
  retrieveAll(call, 1, 2);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 0U);
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(CombinedContactGroup, AllGroupsPassEngineFailures) {
  blockFile("zoncontactgroup");
  Call call;
  retrieveAll(call, 1, 2);
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(GENREG_RC_NOT_REGULAR));
  EXPECT_EQ(call.numberAt(1), Call::MARK_NUMBER);
}

// A name with a separator reads back as two groups that do not exist; their listing fails.
TEST_F(CombinedContactGroup, FailureOfOneGroupIsHiddenByALaterSuccess) {
  ASSERT_EQ(insertMember(listOf("x|y"), "0", "a", "text"), 0);
  ASSERT_EQ(insertMember("g", "0", "a", "text"), 0);
  Call call;
  retrieveAll(call, 1, 6);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 3U);
  EXPECT_EQ(call.textAt(2), "x");
  EXPECT_EQ(call.textAt(3), "");
  EXPECT_EQ(call.cellAt(3).length, 1U);
  EXPECT_EQ(call.textAt(6) + " " + call.textAt(7), "g text");
}

TEST_F(CombinedContactGroup, FailureOfTheLastGroupIsReportedAndAllAreFilled) {
  ASSERT_EQ(insertMember("g", "0", "a", "text"), 0);
  ASSERT_EQ(insertMember(listOf("x|y"), "0", "a", "text"), 0);
  Call call;
  retrieveAll(call, 1, 6);
  EXPECT_EQ(call.sqlcode(), MISSING);
  EXPECT_EQ(call.message(), "");
  EXPECT_EQ(call.textAt(2) + " " + call.textAt(3), "g text");
  EXPECT_EQ(call.textAt(6), "y");
  EXPECT_EQ(call.textAt(7), "");
}

TEST_F(CombinedContactGroup, CountIsWrittenBeforeTheSwitchIsRead) {
  insertGroups("g:a");
  Call names;
  names.in("g").number(0).sameAs(1).out().run(ContactGroupAPI_retrieveAllContactNames);
  EXPECT_EQ(names.textAt(3), "a");
  Call members;
  members.number(0).in("g").sameAs(0).out().out().out().run(ContactGroupAPI_retrieveList);
  EXPECT_EQ(members.textAt(5), "a");
  Call all;
  all.number(0).sameAs(0).out().out().run(ContactGroupAPI_retrieveAll);
  EXPECT_EQ(all.textAt(2), "g");
}

}  // namespace
