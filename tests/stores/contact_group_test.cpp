// Contact groups: records, queries by member and parent, group-wide change, expansion. In these tests | stands for the
// list separator; memberships are written as support/groups.h tells.
#include "zonmdfile/MDContactGroup.h"

#include <gtest/gtest.h>

#include <string>

#include "support/groups.h"
#include "support/metadata_test.h"
#include "support/small_stack.h"
#include "zonmdfile/platform/return_codes.h"

namespace {

using zontest::groups;
using zontest::listOf;
using zontest::Text;
using zontest::textOf;

class ContactGroups : public zontest::MetadataTest {
 protected:
  std::uint32_t insert(const std::string& group, const char* kind, const std::string& member,
                       const std::string& description = "d", const std::string& version = "1") {
    return store_.insert(Text(group), DString(kind), Text(member), Text(description), DString(version.c_str()));
  }
  void insertAll(const std::string& memberships) {
    zontest::forEachMembership(memberships, [&](const std::string& group, const char* kind, const std::string& member) {
      ASSERT_EQ(insert(group, kind, member), 0U);
    });
  }
  std::uint32_t update(const std::string& group, const std::string& description, const std::string& version) {
    return store_.update(Text(group), Text(description), DString(version.c_str()));
  }
  std::uint32_t retrieveList(const std::string& group) {
    return store_.retrieveList(Text(group), kinds_, members_, descriptions_, versions_);
  }
  std::uint32_t retrieveMembers(const std::string& group, const char* kind) {
    return store_.retrieveGroupOrContactList(Text(group), DString(kind), members_, descriptions_, versions_);
  }
  std::uint32_t retrieveParents(const char* kind, const std::string& member) {
    return store_.retrieveParentGroupList(groups_, DString(kind), Text(member), descriptions_, versions_);
  }
  std::uint32_t retrieveKeys() { return store_.retrieveKeys(groups_, kinds_, members_); }
  std::uint32_t expand(const std::string& group) {
    names_ = "stale";
    return store_.retrieveAllContactNames(Text(group), names_);
  }

  MDContactGroup store_;
  DString groups_{"stale"};
  DString kinds_{"stale"};
  DString members_{"stale"};
  DString descriptions_{"stale"};
  DString versions_{"stale"};
  DString names_;
};

TEST_F(ContactGroups, GroupIsTheListOfItsRecords) {
  ASSERT_EQ(insert("g", "0", "a", "ops", "7"), 0U);
  ASSERT_EQ(insert("h", "0", "b", "other", "8"), 0U);
  ASSERT_EQ(insert("g", "1", "h", "ops", "7"), 0U);
  EXPECT_EQ(retrieveList("g"), 0U);
  EXPECT_EQ(textOf(kinds_), listOf("0|1|"));
  EXPECT_EQ(textOf(members_), listOf("a|h|"));
  EXPECT_EQ(textOf(descriptions_), listOf("ops|ops|"));
  EXPECT_EQ(textOf(versions_), listOf("7|7|"));
}

TEST_F(ContactGroups, MembersAreListedByKind) {
  insertAll("g:a g>h g:b");
  EXPECT_EQ(retrieveMembers("g", "0"), 0U);
  EXPECT_EQ(textOf(members_), listOf("a|b|"));
  EXPECT_EQ(textOf(descriptions_), listOf("d|d|"));
  EXPECT_EQ(retrieveMembers("g", "1"), 0U);
  EXPECT_EQ(textOf(members_), listOf("h|"));
  EXPECT_EQ(retrieveMembers("h", "0"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(members_) + textOf(descriptions_) + textOf(versions_), "");
}

TEST_F(ContactGroups, ParentsAreListedByMemberAndKind) {
  insertAll("g:a h:a g>a h:b");
  EXPECT_EQ(retrieveParents("0", "a"), 0U);
  EXPECT_EQ(textOf(groups_), listOf("g|h|"));
  EXPECT_EQ(textOf(versions_), listOf("1|1|"));
  EXPECT_EQ(retrieveParents("1", "a"), 0U);
  EXPECT_EQ(textOf(groups_), listOf("g|"));
  EXPECT_EQ(retrieveParents("1", "b"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(groups_) + textOf(descriptions_), "");
}

TEST_F(ContactGroups, AllRecordsAreListed) {
  insertAll("g:a h>g");
  EXPECT_EQ(retrieveKeys(), 0U);
  EXPECT_EQ(textOf(groups_) + textOf(kinds_) + textOf(members_), listOf("g|h|0|1|a|g|"));
  EXPECT_EQ(store_.retrieveAll(groups_, kinds_, members_, descriptions_, versions_), 0U);
  EXPECT_EQ(textOf(groups_) + textOf(descriptions_) + textOf(versions_), listOf("g|h|d|d|1|1|"));
}

TEST_F(ContactGroups, EmptyFileListsNothing) {
  EXPECT_EQ(retrieveKeys(), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(retrieveList("g"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(kinds_) + textOf(members_) + textOf(descriptions_) + textOf(versions_), "");
}

TEST_F(ContactGroups, SameNameMayBeContactAndGroup) {
  EXPECT_EQ(insert("g", "0", "a"), 0U);
  EXPECT_EQ(insert("g", "1", "a"), 0U);
  EXPECT_EQ(insert("g", "1", "a"), GENREG_RC_DUPLICATE_KEY);
}

TEST_F(ContactGroups, ChecksGroupKindMemberDescriptionVersionInThisOrder) {
  const std::string tooLong(129, 'k');
  EXPECT_EQ(insert("", tooLong.c_str(), tooLong, ""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(insert("g", "", tooLong, ""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(insert("g", "0", tooLong, ""), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(insert("g", "0", "a", "", "123456789"), MD_RC_DATA_EMPTY);
  EXPECT_EQ(insert("g", "0", "a", "d", "123456789"), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(update("", "", "123456789"), MD_RC_KEY_EMPTY);
  EXPECT_EQ(update("g", "", "123456789"), MD_RC_DATA_EMPTY);
  EXPECT_EQ(update("g", "d", "123456789"), MD_RC_DATA_TOO_LONG);
  EXPECT_TRUE(isUntouched());
}

TEST_F(ContactGroups, QueriesCheckTheirKeysAndLeaveOutputs) {
  const std::string tooLong(129, 'k');
  EXPECT_EQ(retrieveList(""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(retrieveMembers("", tooLong.c_str()), MD_RC_KEY_EMPTY);
  EXPECT_EQ(retrieveMembers("g", tooLong.c_str()), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(retrieveParents("", tooLong), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(retrieveParents("", "a"), MD_RC_KEY_EMPTY);
  EXPECT_EQ(textOf(groups_) + textOf(members_) + textOf(descriptions_), "stalestalestale");
}

TEST_F(ContactGroups, RemoveTakesOneRecord) {
  insertAll("g:a g>a g:b");
  EXPECT_EQ(store_.remove(Text("g"), DString("0"), Text("a")), 0U);
  EXPECT_EQ(groups(), "g>a g:b");
  EXPECT_EQ(store_.remove(Text("g"), DString("0"), Text("a")), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.remove(Text("g"), DString(""), Text("a")), MD_RC_KEY_EMPTY);
}

TEST_F(ContactGroups, RemovingOneKindKeepsTheOther) {
  insertAll("g:a g>h g>i f>h");
  EXPECT_EQ(store_.removeGroup(Text("g"), DString("1")), 0U);
  EXPECT_EQ(groups(), "g:a f>h");
  EXPECT_FALSE(store_.hasFeature(2));
}

TEST_F(ContactGroups, RemovingAGroupLeavesItsParents) {
  insertAll("g:a g>h f>g");
  EXPECT_EQ(store_.removeGroup(Text("g")), 0U);
  EXPECT_EQ(groups(), "f>g");
  EXPECT_EQ(store_.removeGroup(Text("g")), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.removeGroup(Text("")), MD_RC_KEY_EMPTY);
  EXPECT_FALSE(store_.hasFeature(2));
}

TEST_F(ContactGroups, UpdateChangesEveryRecordOfTheGroup) {
  insertAll("g:a h:a g>h");
  EXPECT_EQ(update("g", "new text", "2"), 0U);
  EXPECT_EQ(store_.retrieveAll(groups_, kinds_, members_, descriptions_, versions_), 0U);
  EXPECT_EQ(textOf(groups_), listOf("g|h|g|"));
  EXPECT_EQ(textOf(descriptions_), listOf("new text|d|new text|"));
  EXPECT_EQ(textOf(versions_), listOf("2|1|2|"));
}

TEST_F(ContactGroups, UpdateOfAnUnknownGroupChangesNothing) {
  insertAll("g:a");
  const std::string before = bytesOf(MDContactGroup::FILENAME);
  EXPECT_EQ(update("h", "new", "2"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(bytesOf(MDContactGroup::FILENAME), before);
}

TEST_F(ContactGroups, UpdateWithTheSameTextSucceeds) {
  insertAll("g:a g:b");
  EXPECT_EQ(update("g", "d", "1"), 0U);
}

// A kind that holds the separator reads back as two: the records are looked for where they are not.
TEST_F(ContactGroups, UpdateWithinABatchOfTheOwnerIsPartOfIt) {
  insertAll("g:a g:b");
  ASSERT_EQ(store_.beginBatch(), 0U);
  EXPECT_EQ(update("g", "new", "2"), 0U);
  EXPECT_EQ(MDContactGroup().retrieveList(Text("g"), kinds_, members_, descriptions_, versions_), 0U);
  EXPECT_EQ(textOf(descriptions_), listOf("d|d|"));
  EXPECT_EQ(store_.commitBatch(), 0U);
  EXPECT_EQ(retrieveList("g"), 0U);
  EXPECT_EQ(textOf(descriptions_), listOf("new|new|"));
}

TEST_F(ContactGroups, UpdateStopsWhereTheListsReadBackWrongly) {
  ASSERT_EQ(insert("g", listOf("0|0").c_str(), "a"), 0U);
  EXPECT_EQ(update("g", "new", "2"), GENREG_RC_NOT_FOUND);
  ASSERT_EQ(insert("g", "0", "a"), 0U);
  EXPECT_EQ(retrieveList("g"), 0U);
  EXPECT_EQ(textOf(kinds_), listOf("0|0|0|"));
  // Two members for three kinds: the first two are the record of kind 0, then the members are used up.
  EXPECT_EQ(update("g", "new", "2"), MD_RC_TOKEN_MISSING);
  EXPECT_EQ(retrieveList("g"), 0U);
  EXPECT_EQ(textOf(descriptions_), listOf("d|new|"));
}

TEST_F(ContactGroups, UpdateGivesUpWhenTheLockWaitIsOver) {
  insertAll("g:a g:b");
  MDContactGroup other;
  ASSERT_EQ(other.beginBatch(), 0U);
  store_.setLockWait(20);
  EXPECT_EQ(update("g", "new", "2"), GENREG_RC_LOCK_TIMEOUT);
  ASSERT_EQ(other.commitBatch(), 0U);
  EXPECT_EQ(update("g", "new", "2"), 0U);
}

TEST_F(ContactGroups, ExpansionOfGroupsThatHoldEachOtherEnds) {
  insertAll("A:a A>B B:b B>A");
  EXPECT_EQ(expand("A"), 0U);
  EXPECT_EQ(textOf(names_), listOf("a|b|"));
}

TEST_F(ContactGroups, ExpansionIgnoresAnEmptyBranch) {
  insertAll("g>void h>void h:a");
  EXPECT_EQ(expand("g"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(names_), "");
  EXPECT_EQ(expand("h"), 0U);
  EXPECT_EQ(textOf(names_), listOf("a|"));
}

TEST_F(ContactGroups, ExpansionListsAContactOnceAtItsFirstPlace) {
  insertAll("g:x g>h g>i h:a h:b i:b i:x i:c");
  EXPECT_EQ(expand("g"), 0U);
  EXPECT_EQ(textOf(names_), listOf("x|a|b|c|"));
}

TEST_F(ContactGroups, ExpansionGoesDepthFirstWithOwnContactsBefore) {
  insertAll("g>h g>i g:a h>j h:b j:c i:d");
  EXPECT_EQ(expand("g"), 0U);
  EXPECT_EQ(textOf(names_), listOf("a|b|c|d|"));
}

TEST_F(ContactGroups, ExpansionOfAnUnknownGroupIsNotFound) {
  EXPECT_EQ(expand("nobody"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(names_), "");
}

TEST_F(ContactGroups, ExpansionRefusesABadName) {
  EXPECT_EQ(expand(""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(textOf(names_), "");
}

TEST_F(ContactGroups, ExpansionGoesOnBehindAFailingBranchAndReportsIt) {
  // The name "x||y" reads back as x, the empty name, and y: the expansion of the second fails.
  insertAll("g:a x:b y:c");
  ASSERT_EQ(insert("g", "1", listOf("x||y")), 0U);
  DSet<DString> contacts;
  EXPECT_EQ(store_.retrieveAllContact(Text("g"), contacts), MD_RC_KEY_EMPTY);
  ASSERT_EQ(contacts.count(), 3U);
  EXPECT_EQ(textOf(contacts.elementAt(3)), "c");
  EXPECT_EQ(expand("g"), MD_RC_KEY_EMPTY);
  EXPECT_EQ(textOf(names_), "");
}

TEST_F(ContactGroups, StepOfAnExpansionSkipsVisitedGroupsWithoutCounting) {
  insertAll("g>h h:a");
  DSet<DString> contacts;
  DSet<DString> visited;
  visited.add(DString("h"));
  EXPECT_EQ(store_.retrieveAllNames(Text("g"), contacts, visited), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(contacts.count(), 0U);
}

TEST_F(ContactGroups, StepOfAnExpansionCountsContactsThatAreThereAlready) {
  insertAll("g:a");
  DSet<DString> contacts;
  contacts.add(DString("a"));
  DSet<DString> visited;
  EXPECT_EQ(store_.retrieveAllNames(Text("g"), contacts, visited), 0U);
  EXPECT_EQ(contacts.count(), 1U);
}

TEST_F(ContactGroups, StepOfAnExpansionTellsTheGroupsOnItsWay) {
  insertAll("g>h h>i i:a");
  DSet<DString> contacts;
  DSet<DString> visited;
  EXPECT_EQ(store_.retrieveAllNames(Text("g"), contacts, visited), 0U);
  ASSERT_EQ(visited.count(), 2U);
  EXPECT_EQ(textOf(visited.elementAt(1)) + textOf(visited.elementAt(2)), "hi");
}

TEST_F(ContactGroups, ExpansionFailsWhenTheFileCannotBeRead) {
  blockFile(MDContactGroup::FILENAME);
  EXPECT_EQ(expand("g"), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(update("g", "d", "1"), GENREG_RC_NOT_REGULAR);
}

TEST_F(ContactGroups, ReleaseEveryBufferAlsoWhenAScanCannotBegin) {
  insertAll("g:a g>h h:b");
  expand("g");
  update("g", "x", "2");
  retrieveParents("0", "a");
  EXPECT_EQ(store_.removeGroup(Text("g")), 0U);
  EXPECT_EQ(ossMemOutstanding(zontest::labelOf<MDContactGroup>()), 0U);
  std::filesystem::remove(directory_ / MDContactGroup::FILENAME);
  blockFile(MDContactGroup::FILENAME);
  EXPECT_EQ(retrieveList("g"), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(retrieveKeys(), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(ossMemOutstanding(zontest::labelOf<MDContactGroup>()), 0U);
}

TEST_F(ContactGroups, DeepNestingNeedsNoStack) {
  constexpr int DEPTH = 3000;
  ASSERT_EQ(store_.beginBatch(), 0U);
  for (int i = 0; i < DEPTH; ++i) {
    ASSERT_EQ(insert("g" + std::to_string(i), "1", "g" + std::to_string(i + 1)), 0U);
  }
  ASSERT_EQ(insert("g" + std::to_string(DEPTH), "0", "deep"), 0U);
  ASSERT_EQ(store_.commitBatch(), 0U);
  std::uint32_t rc = 99;
  zontest::runOnSmallStack([&] { rc = expand("g0"); });
  EXPECT_EQ(rc, 0U);
  EXPECT_EQ(textOf(names_), listOf("deep|"));
}

TEST(PrintSet, PrintsEachNameInItsLine) {
  DSet<DString> names;
  names.add(DString("a"));
  names.add(DString("b"));
  testing::internal::CaptureStdout();
  printSet(names);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "\t\ta\n\t\tb\n\n");
}

}  // namespace
