// The contact-group entry points through their exported names. In these tests | stands for the list separator;
// support/groups.h tells how groups are written.
#include <gtest/gtest.h>

#include "support/cells.h"
#include "support/groups.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::groups;
using zontest::insertGroups;
using zontest::insertMember;
using zontest::listOf;

constexpr std::int32_t EXISTS = -22270;
constexpr std::int32_t MISSING = -22271;

class ContactGroupApi : public zontest::MetadataTest {};

TEST_F(ContactGroupApi, RetrieveAllContactNamesExpandsTheGroup) {
  insertGroups("g:a g>h h:b");
  Call call;
  call.in("g").rc().out().run(MDContactGroup_retrieveAllContactNames);
  EXPECT_EQ(call.rcCell(1), 0);
  EXPECT_EQ(call.textAt(2), listOf("a|b|"));
}

TEST_F(ContactGroupApi, RetrieveAllContactNamesWithoutContactsIsMissing) {
  insertGroups("g>h h>i");
  Call call;
  call.in("g").rc().out().run(MDContactGroup_retrieveAllContactNames);
  EXPECT_EQ(call.rcCell(1), MISSING);
  EXPECT_EQ(call.message(), "g");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(ContactGroupApi, UpdateDescriptionChangesEveryRecord) {
  insertGroups("g:a g>h h:b");
  Call update;
  update.in("g").in("new text").in("2").rc().run(MDContactGroup_updateDescription);
  EXPECT_EQ(update.rcCell(3), 0);
  Call call;
  call.rc().out().out().out().out().out().run(MDContactGroup_retrieveAll);
  EXPECT_EQ(call.textAt(4), listOf("new text|new text|d|"));
  EXPECT_EQ(call.textAt(5), listOf("2|2|1|"));
}

TEST_F(ContactGroupApi, UpdateDescriptionOfAnUnknownGroupNamesIt) {
  Call call;
  call.in("g").in("new text").in("2").rc().run(MDContactGroup_updateDescription);
  EXPECT_EQ(call.rcCell(3), MISSING);
  EXPECT_EQ(call.message(), "g");
}

TEST_F(ContactGroupApi, RetrieveKeysFillsThreeLists) {
  insertGroups("g:a h>g");
  Call call;
  call.rc().out().out().out().run(MDContactGroup_retrieveKeys);
  EXPECT_EQ(call.rcCell(0), 0);
  EXPECT_EQ(call.textAt(1), listOf("g|h|"));
  EXPECT_EQ(call.textAt(2), listOf("0|1|"));
  EXPECT_EQ(call.textAt(3), listOf("a|g|"));
}

TEST_F(ContactGroupApi, RetrieveKeysWithoutGroupsIsMissingWithoutToken) {
  Call call;
  call.rc().out().out().out().run(MDContactGroup_retrieveKeys);
  EXPECT_EQ(call.rcCell(0), MISSING);
  EXPECT_EQ(call.message(), "");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(ContactGroupApi, RetrieveAllFillsFiveLists) {
  ASSERT_EQ(insertMember("g", "0", "a", "text", "7"), 0);
  Call call;
  call.rc().out().out().out().out().out().run(MDContactGroup_retrieveAll);
  EXPECT_EQ(call.rcCell(0), 0);
  EXPECT_EQ(call.textAt(1) + call.textAt(2) + call.textAt(3), listOf("g|0|a|"));
  EXPECT_EQ(call.textAt(4) + call.textAt(5), listOf("text|7|"));
}

TEST_F(ContactGroupApi, RetrieveAllWithoutGroupsIsMissingWithoutToken) {
  Call call;
  call.rc().out().out().out().out().out().run(MDContactGroup_retrieveAll);
  EXPECT_EQ(call.rcCell(0), MISSING);
  EXPECT_EQ(call.message(), "");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(ContactGroupApi, RetrieveListFillsTheGroupsLists) {
  insertGroups("g:a h:b g>h");
  Call call;
  call.in("g").rc().out().out().out().out().run(MDContactGroup_retrieveList);
  EXPECT_EQ(call.rcCell(1), 0);
  EXPECT_EQ(call.textAt(2), listOf("0|1|"));
  EXPECT_EQ(call.textAt(3), listOf("a|h|"));
  EXPECT_EQ(call.textAt(4), listOf("d|d|"));
  EXPECT_EQ(call.textAt(5), listOf("1|1|"));
}

TEST_F(ContactGroupApi, RetrieveListOfAnUnknownGroupNamesIt) {
  Call call;
  call.in("g").rc().out().out().out().out().run(MDContactGroup_retrieveList);
  EXPECT_EQ(call.rcCell(1), MISSING);
  EXPECT_EQ(call.message(), "g");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(ContactGroupApi, RetrieveContactOrGroupListFillsTheMembersOfAKind) {
  insertGroups("g:a g>h g:b");
  Call call;
  call.in("g").in("0").rc().out().out().out().run(MDContactGroup_retrieveContactOrGroupList);
  EXPECT_EQ(call.rcCell(2), 0);
  EXPECT_EQ(call.textAt(3), listOf("a|b|"));
  EXPECT_EQ(call.textAt(4), listOf("d|d|"));
  EXPECT_EQ(call.textAt(5), listOf("1|1|"));
}

TEST_F(ContactGroupApi, RetrieveContactOrGroupListWithoutMembersNamesTheGroup) {
  insertGroups("g:a");
  Call call;
  call.in("g").in("1").rc().out().out().out().run(MDContactGroup_retrieveContactOrGroupList);
  EXPECT_EQ(call.rcCell(2), MISSING);
  EXPECT_EQ(call.message(), "g");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(ContactGroupApi, RetrieveParentGroupListFillsTheGroupsOfAMember) {
  insertGroups("g:a h:a i>a");
  Call call;
  call.in("0").in("a").rc().out().out().out().run(MDContactGroup_retrieveParentGroupList);
  EXPECT_EQ(call.rcCell(2), 0);
  EXPECT_EQ(call.textAt(3), listOf("g|h|"));
  EXPECT_EQ(call.textAt(4), listOf("d|d|"));
  EXPECT_EQ(call.textAt(5), listOf("1|1|"));
}

TEST_F(ContactGroupApi, RetrieveParentGroupListOfAnUnknownMemberNamesTheMember) {
  Call call;
  call.in("0").in("a").rc().out().out().out().run(MDContactGroup_retrieveParentGroupList);
  EXPECT_EQ(call.rcCell(2), MISSING);
  EXPECT_EQ(call.message(), "a");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(ContactGroupApi, InsertOfAMemberThatIsThereNamesGroupAndMember) {
  insertGroups("g:a");
  Call call;
  call.in("g").in("0").in("a").in("d").in("1").rc().run(MDContactGroup_insert);
  EXPECT_EQ(call.rcCell(5), EXISTS);
  EXPECT_EQ(call.message(), "g a");
}

TEST_F(ContactGroupApi, InsertPassesTheCodesOfTheChecks) {
  EXPECT_EQ(insertMember("", "0", "a"), ecfToSqlError(MD_RC_KEY_EMPTY));
  EXPECT_EQ(insertMember("g", "0", "a", ""), ecfToSqlError(MD_RC_DATA_EMPTY));
}

TEST_F(ContactGroupApi, RemoveAllWithdrawsTheGroupFromItsParents) {
  insertGroups("g:a g>h p>g p:b q>g");
  Call call;
  call.in("g").rc().run(MDContactGroup_removeAll);
  EXPECT_EQ(call.rcCell(1), 0);
  EXPECT_EQ(groups(), "p:b");
}

TEST_F(ContactGroupApi, RemoveAllOfAGroupWithoutParentsSucceeds) {
  insertGroups("g:a h:a");
  Call call;
  call.in("g").rc().run(MDContactGroup_removeAll);
  EXPECT_EQ(call.rcCell(1), 0);
  EXPECT_EQ(groups(), "h:a");
}

TEST_F(ContactGroupApi, RemoveAllOfAnUnknownGroupRunsNoCascade) {
  insertGroups("p>g");
  Call call;
  call.in("g").rc().run(MDContactGroup_removeAll);
  EXPECT_EQ(call.rcCell(1), MISSING);
  EXPECT_EQ(call.message(), "g");
  EXPECT_EQ(groups(), "p>g");
}

TEST_F(ContactGroupApi, RemoveListWithdrawsTheGroupAlsoWhenMembersOfTheOtherKindStay) {
  insertGroups("g:a g>h p>g p:b");
  Call call;
  call.in("g").in("0").rc().run(MDContactGroup_removeList);
  EXPECT_EQ(call.rcCell(2), 0);
  EXPECT_EQ(groups(), "g>h p:b");
}

TEST_F(ContactGroupApi, RemoveListOfAKindWithoutMembersRunsNoCascade) {
  insertGroups("g:a p>g");
  Call call;
  call.in("g").in("1").rc().run(MDContactGroup_removeList);
  EXPECT_EQ(call.rcCell(2), MISSING);
  EXPECT_EQ(call.message(), "g");
  EXPECT_EQ(groups(), "g:a p>g");
}

TEST_F(ContactGroupApi, RemoveDoesNotTestTheGroupForEmptiness) {
  insertGroups("g:a p>g");
  Call call;
  call.in("g").in("0").in("a").rc().run(MDContactGroup_remove);
  EXPECT_EQ(call.rcCell(3), 0);
  EXPECT_EQ(groups(), "p>g");
}

TEST_F(ContactGroupApi, RemoveOfAContactWithdrawsANestedGroupOfItsName) {
  insertGroups("g:a h>a h:b i:a");
  Call call;
  call.in("g").in("0").in("a").rc().run(MDContactGroup_remove);
  EXPECT_EQ(call.rcCell(3), 0);
  EXPECT_EQ(groups(), "h:b i:a");
}

TEST_F(ContactGroupApi, RemoveOfAMissingMemberNamesGroupAndMember) {
  insertGroups("h>a");
  Call call;
  call.in("g").in("0").in("a").rc().run(MDContactGroup_remove);
  EXPECT_EQ(call.rcCell(3), MISSING);
  EXPECT_EQ(call.message(), "g a");
  EXPECT_EQ(groups(), "h>a");
}

}  // namespace
