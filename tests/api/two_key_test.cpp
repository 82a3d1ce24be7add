// The two-key entry points through their exported names. In these tests | stands for the list separator.
#include <gtest/gtest.h>

#include <string>

#include "support/cells.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::EntryPoint;
using zontest::listOf;

struct TwoKeyEntryPoints {
  const char* store;
  EntryPoint retrieveKeys;
  EntryPoint retrieveAll;
  EntryPoint removeList;
  EntryPoint retrieveList;
  EntryPoint remove;
  EntryPoint retrieve;
  EntryPoint update;
  EntryPoint insert;
};

void PrintTo(const TwoKeyEntryPoints& entries, std::ostream* out) { *out << entries.store; }

const TwoKeyEntryPoints STORES[] = {
    {"MDJCLSkeleton", MDJCLSkeleton_retrieveKeys, MDJCLSkeleton_retrieveAll, MDJCLSkeleton_removeList,
     MDJCLSkeleton_retrieveList, MDJCLSkeleton_remove, MDJCLSkeleton_retrieve, MDJCLSkeleton_update,
     MDJCLSkeleton_insert},
    {"MDCloningHistory", MDCloningHistory_retrieveKeys, MDCloningHistory_retrieveAll, MDCloningHistory_removeList,
     MDCloningHistory_retrieveList, MDCloningHistory_remove, MDCloningHistory_retrieve, MDCloningHistory_update,
     MDCloningHistory_insert},
    {"MDUtilityHistory", MDUtilityHistory_retrieveKeys, MDUtilityHistory_retrieveAll, MDUtilityHistory_removeList,
     MDUtilityHistory_retrieveList, MDUtilityHistory_remove, MDUtilityHistory_retrieve, MDUtilityHistory_update,
     MDUtilityHistory_insert},
};

constexpr std::int32_t EXISTS = -22272;
constexpr std::int32_t MISSING = -22273;

class TwoKeyApi : public zontest::MetadataTest, public testing::WithParamInterface<TwoKeyEntryPoints> {
 protected:
  std::int32_t insert(const std::string& group, const std::string& key, const std::string& data = "x",
                      const std::string& version = "1") {
    Call call;
    call.in(group).in(key).in(data).in(version).rc().run(GetParam().insert);
    return call.rcCell(4);
  }
  std::string keys() {
    Call call;
    call.rc().out().out().run(GetParam().retrieveKeys);
    return call.rcCell(0) == 0 ? call.textAt(1) + " " + call.textAt(2) : "";
  }
};

std::string nameOf(const testing::TestParamInfo<TwoKeyEntryPoints>& store) { return store.param.store; }

INSTANTIATE_TEST_SUITE_P(Stores, TwoKeyApi, testing::ValuesIn(STORES), nameOf);

TEST_P(TwoKeyApi, RetrieveKeysFillsTwoLists) {
  ASSERT_EQ(insert("A", "1"), 0);
  ASSERT_EQ(insert("B", "2"), 0);
  Call call;
  call.rc().out().out().run(GetParam().retrieveKeys);
  EXPECT_EQ(call.rcCell(0), 0);
  EXPECT_EQ(call.cellAt(1).length, 5U);
  EXPECT_EQ(call.textAt(1), listOf("A|B|"));
  EXPECT_EQ(call.textAt(2), listOf("1|2|"));
}

TEST_P(TwoKeyApi, RetrieveKeysOfAnEmptyStoreIsMissingWithoutToken) {
  Call call;
  call.rc().out().out().run(GetParam().retrieveKeys);
  EXPECT_EQ(call.rcCell(0), MISSING);
  EXPECT_EQ(call.message(), "");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(TwoKeyApi, RetrieveAllFillsAllFourOutputs) {
  ASSERT_EQ(insert("A", "1", "x", "7"), 0);
  ASSERT_EQ(insert("B", "2", "y", ""), 0);
  Call call;
  call.rc().out().out().out().out().run(GetParam().retrieveAll);
  EXPECT_EQ(call.rcCell(0), 0);
  EXPECT_EQ(call.textAt(1), listOf("A|B|"));
  EXPECT_EQ(call.textAt(2), listOf("1|2|"));
  EXPECT_EQ(call.textAt(3), listOf("x|y|"));
  EXPECT_EQ(call.textAt(4), listOf("7||"));
}

TEST_P(TwoKeyApi, RetrieveAllOfAnEmptyStoreFillsNoneOfThem) {
  Call call;
  call.rc().out().out().out().out().run(GetParam().retrieveAll);
  EXPECT_EQ(call.rcCell(0), MISSING);
  EXPECT_EQ(call.message(), "");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(TwoKeyApi, RetrieveListFillsTheGroupsLists) {
  ASSERT_EQ(insert("A", "1", "x", "7"), 0);
  ASSERT_EQ(insert("B", "2"), 0);
  ASSERT_EQ(insert("A", "3", "y", "8"), 0);
  Call call;
  call.in("A").rc().out().out().out().run(GetParam().retrieveList);
  EXPECT_EQ(call.rcCell(1), 0);
  EXPECT_EQ(call.textAt(2), listOf("1|3|"));
  EXPECT_EQ(call.textAt(3), listOf("x|y|"));
  EXPECT_EQ(call.textAt(4), listOf("7|8|"));
}

TEST_P(TwoKeyApi, RetrieveListOfAGroupWithoutRecordsNamesTheGroup) {
  ASSERT_EQ(insert("A", "1"), 0);
  Call call;
  call.in("B").rc().out().out().out().run(GetParam().retrieveList);
  EXPECT_EQ(call.rcCell(1), MISSING);
  EXPECT_EQ(call.sqlcode(), MISSING);
  EXPECT_EQ(call.message(), "B");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(TwoKeyApi, RetrieveFillsDataAndVersion) {
  ASSERT_EQ(insert("A", "1", "data", "7"), 0);
  Call call;
  call.in("A").in("1").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.rcCell(2), 0);
  EXPECT_EQ(call.textAt(3), "data");
  EXPECT_EQ(call.textAt(4), "7");
}

TEST_P(TwoKeyApi, RetrieveOfAMissingRecordNamesBothKeys) {
  Call call;
  call.in("A").in("1").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.rcCell(2), MISSING);
  EXPECT_EQ(call.message(), "A 1");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(TwoKeyApi, RecordWithAnEmptyVersionReportsNoData) {
  ASSERT_EQ(insert("A", "1", "data", ""), 0);
  Call call;
  call.in("A").in("1").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.rcCell(2), ecfToSqlError(MD_RC_NO_DATA));
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(TwoKeyApi, InsertOfARecordThatExistsNamesBothKeys) {
  ASSERT_EQ(insert("A", "1"), 0);
  Call call;
  call.in("A").in("1").in("x").in("1").rc().run(GetParam().insert);
  EXPECT_EQ(call.rcCell(4), EXISTS);
  EXPECT_EQ(call.message(), "A 1");
}

TEST_P(TwoKeyApi, InsertPassesTheCodesOfTheChecks) {
  EXPECT_EQ(insert("", "1"), ecfToSqlError(MD_RC_KEY_EMPTY));
  EXPECT_EQ(insert("A", std::string(129, 'k')), ecfToSqlError(MD_RC_KEY_TOO_LONG));
  EXPECT_EQ(insert("A", "1", ""), ecfToSqlError(MD_RC_DATA_EMPTY));
  EXPECT_EQ(insert("A", "1", "x", "1234567890"), ecfToSqlError(MD_RC_DATA_TOO_LONG));
}

TEST_P(TwoKeyApi, UpdateReplacesDataAndVersion) {
  ASSERT_EQ(insert("A", "1"), 0);
  Call update;
  update.in("A").in("1").in("y").in("2").rc().run(GetParam().update);
  EXPECT_EQ(update.rcCell(4), 0);
  Call call;
  call.in("A").in("1").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.textAt(3) + call.textAt(4), "y2");
}

TEST_P(TwoKeyApi, UpdateOfAMissingRecordNamesBothKeys) {
  Call call;
  call.in("A").in("1").in("y").in("2").rc().run(GetParam().update);
  EXPECT_EQ(call.rcCell(4), MISSING);
  EXPECT_EQ(call.message(), "A 1");
}

TEST_P(TwoKeyApi, RemoveTakesOneRecordAndNamesBothKeysOfAMissingOne) {
  ASSERT_EQ(insert("A", "1"), 0);
  ASSERT_EQ(insert("A", "2"), 0);
  Call first;
  first.in("A").in("1").rc().run(GetParam().remove);
  EXPECT_EQ(first.rcCell(2), 0);
  EXPECT_EQ(keys(), listOf("A| 2|"));
  Call second;
  second.in("A").in("1").rc().run(GetParam().remove);
  EXPECT_EQ(second.rcCell(2), MISSING);
  EXPECT_EQ(second.message(), "A 1");
}

TEST_P(TwoKeyApi, RemoveListTakesTheGroupAndNamesAMissingOne) {
  ASSERT_EQ(insert("A", "1"), 0);
  ASSERT_EQ(insert("B", "1"), 0);
  ASSERT_EQ(insert("A", "2"), 0);
  Call first;
  first.in("A").rc().run(GetParam().removeList);
  EXPECT_EQ(first.rcCell(1), 0);
  EXPECT_EQ(keys(), listOf("B| 1|"));
  Call second;
  second.in("A").rc().run(GetParam().removeList);
  EXPECT_EQ(second.rcCell(1), MISSING);
  EXPECT_EQ(second.message(), "A");
}

}  // namespace
