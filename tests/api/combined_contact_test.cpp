// The combined contact interface. In these tests / stands for the contact field separator.
#include <gtest/gtest.h>

#include <string>

#include "support/cells.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::EntryPoint;
using zontest::fieldsOf;

class CombinedContact : public zontest::MetadataTest {
 protected:
  void insertText(const std::string& name, const std::string& data, const std::string& version = "1") {
    Call call;
    call.in(name).in(fieldsOf(data)).in(version).rc().run(MDContact_insert);
    ASSERT_EQ(call.rcCell(3), 0);
  }
  // The stored data and version of a contact.
  std::string stored(const std::string& name) {
    Call call;
    call.in(name).rc().out().out().run(MDContact_retrieve);
    if (call.rcCell(1) != 0) return "";
    return call.textAt(2) + " " + call.textAt(3);
  }
  Call& write(Call& call, EntryPoint entryPoint, std::uint32_t version) {
    return call.in("duty").number(2).in("pager1").number(60).in("memo").run(entryPoint, &version);
  }
  Call& read(Call& call, const std::string& name) {
    return call.in(name).number().out().number().out().run(ContactAPI_retrieve);
  }
  static Call& addContacts(Call& call, int count) {
    for (int i = 0; i < count; ++i) call.out().number().out().number().out();
    return call;
  }
  // The five slots of contact k.
  static std::string contactAt(const Call& call, std::size_t k) {
    const std::size_t first = 2 + 5 * k;
    return call.textAt(first) + " " + std::to_string(static_cast<std::int32_t>(call.numberAt(first + 1))) + " " +
           call.textAt(first + 2) + " " + std::to_string(static_cast<std::int32_t>(call.numberAt(first + 3))) + " " +
           call.textAt(first + 4);
  }
};

TEST_F(CombinedContact, InsertJoinsTheFieldsAndTheVersionNumber) {
  Call call;
  write(call, ContactAPI_insert, 3);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(stored("duty"), fieldsOf("pager1/2/memo/60") + " 3");
}

TEST_F(CombinedContact, UpdateJoinsTheFieldsAndTheVersionNumber) {
  insertText("duty", "old");
  Call call;
  write(call, ContactAPI_update, 3);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(stored("duty"), fieldsOf("pager1/2/memo/60") + " 3");
}

TEST_F(CombinedContact, NumbersAreWrittenUnsigned) {
  Call call;
  std::uint32_t version = 4294967295U;
  call.in("duty").number(4294967295U).in("").number(0).in("").run(ContactAPI_insert, &version);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(stored("duty"), fieldsOf("/4294967295//0") + " 4294967295");
}

TEST_F(CombinedContact, MissingReservedArgumentIsVersion0) {
  Call call;
  call.in("duty").number(2).in("pager1").number(60).in("memo").run(ContactAPI_insert, nullptr);
  EXPECT_EQ(stored("duty"), fieldsOf("pager1/2/memo/60") + " 0");
}

TEST_F(CombinedContact, InsertOfANameThatExistsNamesIt) {
  insertText("duty", "old");
  Call call;
  write(call, ContactAPI_insert, 3);
  EXPECT_EQ(call.sqlcode(), -22270);
  EXPECT_EQ(call.message(), "duty");
}

TEST_F(CombinedContact, UpdateOfAMissingContactNamesIt) {
  Call call;
  write(call, ContactAPI_update, 3);
  EXPECT_EQ(call.sqlcode(), -22271);
  EXPECT_EQ(call.message(), "duty");
}

TEST_F(CombinedContact, WritingPassesTheCodesOfTheChecks) {
  Call call;
  call.in("").number(2).in("x").number(60).in("y").run(ContactAPI_insert);
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(MD_RC_KEY_EMPTY));
  Call longText;
  longText.in("duty").number(2).in("x").number(60).in(std::string(1'024'000, 'd')).run(ContactAPI_update);
  EXPECT_EQ(longText.sqlcode(), ecfToSqlError(MD_RC_DATA_TOO_LONG));
}

TEST_F(CombinedContact, RetrieveSplitsTheFields) {
  insertText("duty", "pager1/2/memo/60");
  Call call;
  read(call, "duty");
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 2U);
  EXPECT_EQ(call.textAt(2), "pager1");
  EXPECT_EQ(call.cellAt(2).length, 7U);
  EXPECT_EQ(call.numberAt(3), 60U);
  EXPECT_EQ(call.textAt(4), "memo");
  EXPECT_EQ(call.cellAt(4).length, 5U);
}

TEST_F(CombinedContact, RetrieveRepeatsTheLastFieldForMissingOnes) {
  insertText("duty", "pager1/2");
  Call call;
  read(call, "duty");
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.textAt(2), "pager1");
  EXPECT_EQ(call.textAt(4), "2");
  EXPECT_EQ(call.numberAt(3), 2U);
}

TEST_F(CombinedContact, RetrieveOfATextThatEndsWithASeparatorFailsAndFillsTheOutputs) {
  insertText("duty", "pager1/2/");
  Call call;
  read(call, "duty");
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(MD_RC_TOKEN_MISSING));
  EXPECT_EQ(call.message(), "");
  EXPECT_EQ(call.textAt(2), "pager1");
  EXPECT_EQ(call.numberAt(1), 2U);
  EXPECT_EQ(call.textAt(4), "2");
  EXPECT_EQ(call.numberAt(3), 2U);
}

TEST_F(CombinedContact, RetrieveGivesEmptyFieldsAsEmptyTexts) {
  insertText("duty", "//x");
  Call call;
  read(call, "duty");
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.textAt(2), "");
  EXPECT_EQ(call.cellAt(2).length, 1U);
  EXPECT_EQ(call.numberAt(1), 0U);
}

TEST_F(CombinedContact, RetrieveOfAMissingContactNamesItAndTouchesNothing) {
  Call call;
  read(call, "nobody");
  EXPECT_EQ(call.sqlcode(), -22271);
  EXPECT_EQ(call.message(), "nobody");
  EXPECT_TRUE(call.areOutputsUntouched());
  EXPECT_EQ(call.numberAt(1), Call::MARK_NUMBER);
}

TEST_F(CombinedContact, RetrieveOfAnEmptyVersionReportsNoDataAndTouchesNothing) {
  insertText("duty", "pager1/2/memo/60", "");
  Call call;
  read(call, "duty");
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(MD_RC_NO_DATA));
  EXPECT_TRUE(call.areOutputsUntouched());
  EXPECT_EQ(call.numberAt(3), Call::MARK_NUMBER);
}

TEST_F(CombinedContact, RetrieveAllWithoutContactsIsACountOf0) {
  Call call;
  addContacts(call.number(1).number(), 1).run(ContactAPI_retrieveAll);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 0U);
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_F(CombinedContact, RetrieveAllWithoutDetailWritesTheCountAlone) {
  for (const char* name : {"a", "b", "c"}) insertText(name, "x/1/y/2");
  Call call;
  addContacts(call.number(0).number(), 3).run(ContactAPI_retrieveAll);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 3U);
  EXPECT_TRUE(call.areOutputsUntouched());
  EXPECT_EQ(call.numberAt(3), Call::MARK_NUMBER);
}

TEST_F(CombinedContact, RetrieveAllFillsAGroupOfSlotsForEachContact) {
  insertText("a", "mail-a/1/text-a/10");
  insertText("b", "mail-b/2/text-b/20");
  insertText("c", "mail-c/3/text-c/30");
  Call call;
  addContacts(call.number(1).number(), 3).run(ContactAPI_retrieveAll);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 3U);
  EXPECT_EQ(contactAt(call, 0), "a 1 mail-a 10 text-a");
  EXPECT_EQ(contactAt(call, 1), "b 2 mail-b 20 text-b");
  EXPECT_EQ(contactAt(call, 2), "c 3 mail-c 30 text-c");
}

TEST_F(CombinedContact, RetrieveAllHidesFieldsThatCannotBeRead) {
  insertText("a", "mail/1/");
  Call call;
  addContacts(call.number(7).number(), 1).run(ContactAPI_retrieveAll);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(contactAt(call, 0), "a 1 mail 1 1");
}

// The count cell is read anew before each contact: slots that overlap it decide how far the call goes.
TEST_F(CombinedContact, RetrieveAllStopsWhenAnOutputLowersTheCount) {
  for (const char* name : {"a", "b", "c"}) insertText(name, "x/1/y/2");
  Call call;
  call.number(1).number();
  call.out().sameAs(1).out().number().out();
  addContacts(call, 2);
  const zontest::MemoryAccount account("MDRegFactory");
  call.run(ContactAPI_retrieveAll);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.numberAt(1), 1U);
  EXPECT_EQ(call.textAt(2), "a");
  EXPECT_TRUE(call.isUntouched(7));
  EXPECT_EQ(account.buffers(), 3U);
}

TEST_F(CombinedContact, RetrieveAllRepeatsTheLastContactWhenAnOutputRaisesTheCount) {
  insertText("a", "x/3/y/2");
  Call call;
  call.number(1).number();
  call.out().sameAs(1).out().number().out();
  addContacts(call, 2);
  call.run(ContactAPI_retrieveAll);
  EXPECT_EQ(call.numberAt(1), 3U);
  EXPECT_EQ(contactAt(call, 1), "a 3 x 2 y");
  EXPECT_EQ(contactAt(call, 2), "a 3 x 2 y");
}

TEST_F(CombinedContact, RetrieveAllWritesTheCountBeforeItReadsTheSwitch) {
  insertText("a", "x/3/y/2");
  Call call;
  addContacts(call.number(0).sameAs(0), 1).run(ContactAPI_retrieveAll);
  EXPECT_EQ(call.numberAt(0), 1U);
  EXPECT_EQ(contactAt(call, 0), "a 3 x 2 y");
}

TEST_F(CombinedContact, RetrieveAllGoesOnInTheListsWhenAnOutputRaisesTheCount) {
  insertText("a", zontest::listOf("x/2/y/2|z/5/w/6"));
  Call call;
  call.number(1).number();
  call.out().sameAs(1).out().number().out();
  addContacts(call, 1);
  call.run(ContactAPI_retrieveAll);
  EXPECT_EQ(contactAt(call, 1), "a 5 z 6 w");
}

TEST_F(CombinedContact, RetrieveAllWorksWithoutACountCell) {
  insertText("a", "x/3/y/2");
  Call call;
  addContacts(call.number(1).null(), 1).run(ContactAPI_retrieveAll);
  EXPECT_EQ(contactAt(call, 0), "a 3 x 2 y");
}

TEST_F(CombinedContact, RetrieveAllPassesEngineFailures) {
  blockFile("zoncontact");
  Call call;
  addContacts(call.number(1).number(), 1).run(ContactAPI_retrieveAll);
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(GENREG_RC_NOT_REGULAR));
  EXPECT_EQ(call.numberAt(1), Call::MARK_NUMBER);
  EXPECT_TRUE(call.areOutputsUntouched());
}

}  // namespace
