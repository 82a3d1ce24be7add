// The cascade that withdraws a member from its groups, and the removals that start it. support/groups.h tells how
// groups are written; | stands for the list separator.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/cells.h"
#include "support/groups.h"
#include "support/metadata_test.h"
#include "support/small_stack.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::groups;
using zontest::insertGroups;
using zontest::insertMember;
using zontest::listOf;
using zontest::Text;

class GroupCascade : public zontest::MetadataTest {
 protected:
  std::uint32_t withdraw(const std::string& member, const char* kind) {
    return removeMemberFromGroups(Text(member), DString(kind));
  }
};

TEST_F(GroupCascade, EmptiedGroupIsWithdrawnFromItsParentsInTurn) {
  insertGroups("G:a P>G Q>P R>Q R:b");
  EXPECT_EQ(withdraw("a", "0"), 0U);
  EXPECT_EQ(groups(), "R:b");
}

TEST_F(GroupCascade, StopsAtAGroupThatKeepsAMember) {
  insertGroups("G:a P>G P:b Q>P");
  EXPECT_EQ(withdraw("a", "0"), 0U);
  EXPECT_EQ(groups(), "P:b Q>P");
}

TEST_F(GroupCascade, MemberOfNoGroupIsWithdrawnAlready) {
  EXPECT_EQ(withdraw("a", "0"), 0U);
  EXPECT_TRUE(isUntouched());
  insertGroups("G:b");
  EXPECT_EQ(withdraw("a", "0"), 0U);
  EXPECT_EQ(groups(), "G:b");
}

TEST_F(GroupCascade, LooksAtTheKindOfTheMember) {
  insertGroups("G:a H>a H:b");
  EXPECT_EQ(withdraw("a", "1"), 0U);
  EXPECT_EQ(groups(), "G:a H:b");
}

TEST_F(GroupCascade, ReachesEveryGroupOfTheMember) {
  insertGroups("G:a G:b H:a I:a I:c P>H");
  EXPECT_EQ(withdraw("a", "0"), 0U);
  EXPECT_EQ(groups(), "G:b I:c");
}

TEST_F(GroupCascade, EndsOnGroupsThatEmptyEachOther) {
  insertGroups("A>B B>A A:a");
  EXPECT_EQ(withdraw("a", "0"), 0U);
  EXPECT_EQ(groups(), "A>B B>A");
  EXPECT_EQ(withdraw("A", "1"), 0U);
  EXPECT_EQ(groups(), "");
}

TEST_F(GroupCascade, RefusesABadNameAndKind) {
  EXPECT_EQ(withdraw("", "0"), MD_RC_KEY_EMPTY);
  EXPECT_EQ(withdraw("a", ""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(withdraw(std::string(129, 'a'), "0"), MD_RC_KEY_TOO_LONG);
}

TEST_F(GroupCascade, ReportsAFileThatCannotBeRead) {
  blockFile(MDContactGroup::FILENAME);
  EXPECT_EQ(withdraw("a", "0"), GENREG_RC_NOT_REGULAR);
}

TEST_F(GroupCascade, EndsWhenANameReadsBackAsTheGroupThatIsWithdrawn) {
  ASSERT_EQ(insertMember(listOf("x|y"), "1", "x"), 0);
  EXPECT_EQ(withdraw("x", "1"), 0U);
  EXPECT_EQ(groups(), listOf("x>x"));  // the list of groups reads back as x and y
}

// Each name is one of the others' lists: without a bound on withdrawals this would try all orders of the names.
TEST_F(GroupCascade, EndsSoonWhenManyNamesReadBackAsEachOther) {
  std::string name;
  for (char letter = 'a'; letter <= 'z'; ++letter) name += std::string(name.empty() ? "" : "|") + letter;
  for (char letter = 'a'; letter <= 'z'; ++letter) {
    ASSERT_EQ(insertMember(listOf(name), "1", std::string(1, letter)), 0);
  }
  EXPECT_EQ(withdraw("a", "1"), 0U);
}

TEST_F(GroupCascade, NamesWithSeparatorsLeaveOtherGroupsAlone) {
  ASSERT_EQ(insertMember(listOf("x|y"), "0", "a"), 0);
  insertGroups("x:a y:b p>y");
  EXPECT_EQ(withdraw("a", "0"), 0U);
  EXPECT_EQ(insertMember(listOf("x|y"), "0", "a"), -22270);  // its record could not be named
  EXPECT_EQ(insertMember("y", "0", "b"), -22270);
  EXPECT_EQ(insertMember("x", "0", "a"), 0);
}

TEST_F(GroupCascade, ChainOfEmptiedGroupsNeedsNoStack) {
  constexpr int DEPTH = 3000;
  MDContactGroup store;
  ASSERT_EQ(store.beginBatch(), 0U);
  ASSERT_EQ(store.insert(Text("g0"), DString("0"), Text("a"), Text("d"), DString("1")), 0U);
  for (int i = 0; i < DEPTH; ++i) {
    ASSERT_EQ(store.insert(Text("g" + std::to_string(i + 1)), DString("1"), Text("g" + std::to_string(i)), Text("d"),
                           DString("1")),
              0U);
  }
  ASSERT_EQ(store.commitBatch(), 0U);
  std::uint32_t rc = 99;
  zontest::runOnSmallStack([&] { rc = withdraw("a", "0"); });
  EXPECT_EQ(rc, 0U);
  EXPECT_EQ(groups(), "");
}

// The cascade told as the recursion that callers know, on store operations alone, without any bound.
std::uint32_t withdrawRecursively(const std::string& memberName, const char* kind) {
  MDContactGroup store;
  Text member(memberName);
  DString parents;
  DString ignored[4];
  std::uint32_t rc = store.retrieveParentGroupList(parents, DString(kind), member, ignored[0], ignored[1]);
  if (rc == 0) {
    const DString separator(char{0x0E});
    const std::uint32_t count = store.occurrencesOfToken(parents, separator);
    for (unsigned long i = 1; i <= count; ++i) {
      DString parent;
      rc = store.parseTokenizedString(parents, separator, i, parent);
      if (rc != 0) break;
      rc = store.remove(parent, DString(kind), member);
      if (store.retrieveList(parent, ignored[0], ignored[1], ignored[2], ignored[3]) != 0) {
        withdrawRecursively(zontest::textOf(parent), "1");
      }
    }
  }
  return rc == GENREG_RC_NOT_FOUND ? 0 : rc;
}

// For names without the separator the bound changes nothing.
TEST(GroupCascadeModel, AgreesWithTheUnboundedRecursion) {
  std::mt19937 random(5);
  for (int round = 0; round < 150; ++round) {
    std::vector<std::string> memberships;
    for (std::size_t count = 2 + random() % 12; count > 0; --count) {
      const std::string group(1, static_cast<char>('A' + random() % 5));
      const bool isContact = random() % 3 == 0;
      const std::string member(1, static_cast<char>((isContact ? 'a' : 'A') + random() % (isContact ? 2 : 5)));
      const std::string one = group + (isContact ? ":" : ">") + member;
      if (std::find(memberships.begin(), memberships.end(), one) == memberships.end()) memberships.push_back(one);
    }
    const bool withdrawsContact = random() % 2 == 0;
    const std::string member(1, static_cast<char>((withdrawsContact ? 'a' : 'A') + random() % 2));
    const char* kind = withdrawsContact ? "0" : "1";

    std::string all;
    for (const std::string& one : memberships) all += (all.empty() ? "" : " ") + one;
    std::string expected;
    std::uint32_t expectedRc;
    {
      const zontest::MetadataDirectory directory;
      insertGroups(all);
      expectedRc = withdrawRecursively(member, kind);
      expected = groups();
    }
    const zontest::MetadataDirectory directory;
    insertGroups(all);
    EXPECT_EQ(removeMemberFromGroups(Text(member), DString(kind)), expectedRc) << all << " without " << member;
    EXPECT_EQ(groups(), expected) << all << " without " << member;
  }
}

class ContactRemoval : public zontest::MetadataTest {
 protected:
  void insertContact(const std::string& name) {
    Call call;
    call.in(name).in("data").in("1").rc().run(MDContact_insert);
    ASSERT_EQ(call.rcCell(3), 0);
  }
  std::int32_t removeContact(const std::string& name) {
    Call call;
    call.in(name).rc().run(MDContact_remove);
    return call.rcCell(1);
  }
};

TEST_F(ContactRemoval, OfAMissingContactDoesNotTouchTheGroups) {
  insertGroups("g:a");
  EXPECT_EQ(removeContact("a"), -22271);
  EXPECT_EQ(groups(), "g:a");
}

TEST_F(ContactRemoval, OfAContactInNoGroupSucceeds) {
  insertContact("a");
  EXPECT_EQ(removeContact("a"), 0);
}

TEST_F(ContactRemoval, WithdrawsTheContactAndTheGroupsThatItEmptied) {
  insertContact("a");
  insertGroups("g:a p>g p:b q>g h:a h:b");
  EXPECT_EQ(removeContact("a"), 0);
  EXPECT_EQ(groups(), "p:b h:b");
  EXPECT_EQ(removeContact("a"), -22271);
}

TEST_F(ContactRemoval, KeepsANestedGroupOfTheContactsName) {
  insertContact("a");
  insertGroups("g>a g:a");
  EXPECT_EQ(removeContact("a"), 0);
  EXPECT_EQ(groups(), "g>a");
}

TEST_F(ContactRemoval, ReportsAFailedCleanUpAlthoughTheContactIsGone) {
  insertContact("a");
  blockFile(MDContactGroup::FILENAME);
  EXPECT_EQ(removeContact("a"), ecfToSqlError(GENREG_RC_NOT_REGULAR));
  EXPECT_EQ(removeContact("a"), -22271);
}

}  // namespace
