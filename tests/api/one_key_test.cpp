// The one-key entry points through their exported names, contacts included. In these tests | stands for the list
// separator.
#include <gtest/gtest.h>

#include <string>

#include "support/cells.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::EntryPoint;
using zontest::listOf;

struct OneKeyEntryPoints {
  const char* store;
  EntryPoint retrieveKeys;
  EntryPoint retrieveAll;
  EntryPoint remove;
  EntryPoint retrieve;
  EntryPoint update;
  EntryPoint insert;
  std::int32_t existsCode = -22272;
  std::int32_t missingCode = -22273;
};

void PrintTo(const OneKeyEntryPoints& entries, std::ostream* out) { *out << entries.store; }

const OneKeyEntryPoints STORES[] = {
    {"MDCustomTree", MDCustomTree_retrieveKeys, MDCustomTree_retrieveAll, MDCustomTree_remove, MDCustomTree_retrieve,
     MDCustomTree_update, MDCustomTree_insert},
    {"MDSubSystemSetting", MDSubSystemSetting_retrieveKeys, MDSubSystemSetting_retrieveAll, MDSubSystemSetting_remove,
     MDSubSystemSetting_retrieve, MDSubSystemSetting_update, MDSubSystemSetting_insert},
    {"MDUtilNameMapping", MDUtilNameMapping_retrieveKeys, MDUtilNameMapping_retrieveAll, MDUtilNameMapping_remove,
     MDUtilNameMapping_retrieve, MDUtilNameMapping_update, MDUtilNameMapping_insert},
    {"MDLocationMapping", MDLocationMapping_retrieveKeys, MDLocationMapping_retrieveAll, MDLocationMapping_remove,
     MDLocationMapping_retrieve, MDLocationMapping_update, MDLocationMapping_insert},
    {"MDCloningSubSystemSetting", MDCloningSubSystemSetting_retrieveKeys, MDCloningSubSystemSetting_retrieveAll,
     MDCloningSubSystemSetting_remove, MDCloningSubSystemSetting_retrieve, MDCloningSubSystemSetting_update,
     MDCloningSubSystemSetting_insert},
    {"MDContact", MDContact_retrieveKeys, MDContact_retrieveAll, MDContact_remove, MDContact_retrieve, MDContact_update,
     MDContact_insert, -22270, -22271},
};

class OneKeyApi : public zontest::MetadataTest, public testing::WithParamInterface<OneKeyEntryPoints> {
 protected:
  Call& runInsert(Call& call, const std::string& key, const std::string& data, const std::string& version) {
    return call.in(key).in(data).in(version).rc().run(GetParam().insert);
  }
  std::int32_t insert(const std::string& key, const std::string& data, const std::string& version = "1") {
    Call call;
    return runInsert(call, key, data, version).rcCell(3);
  }
};

std::string nameOf(const testing::TestParamInfo<OneKeyEntryPoints>& store) { return store.param.store; }

INSTANTIATE_TEST_SUITE_P(Stores, OneKeyApi, testing::ValuesIn(STORES), nameOf);

TEST_P(OneKeyApi, RetrieveFillsDataAndVersionWithTheirLengths) {
  ASSERT_EQ(insert("a", "x", "1"), 0);
  Call call;
  call.in("a").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.rcCell(1), 0);
  EXPECT_EQ(call.sqlcode(), 0);
  EXPECT_EQ(call.cellAt(2).length, 2U);
  EXPECT_EQ(call.textAt(2), "x");
  EXPECT_EQ(call.cellAt(3).length, 2U);
  EXPECT_EQ(call.textAt(3), "1");
}

TEST_P(OneKeyApi, RetrieveOfAMissingKeyNamesItAndLeavesTheOutputs) {
  Call call;
  call.in("nobody").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.rcCell(1), GetParam().missingCode);
  EXPECT_EQ(call.sqlcode(), GetParam().missingCode);
  EXPECT_EQ(call.message(), "nobody");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(OneKeyApi, NullTextIsTheEmptyKeyAndNoToken) {
  Call call;
  call.inNull().rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.rcCell(1), ecfToSqlError(MD_RC_KEY_EMPTY));
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(MD_RC_KEY_EMPTY));
  EXPECT_EQ(call.message(), "");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(OneKeyApi, RecordWithAnEmptyVersionReportsNoData) {
  ASSERT_EQ(insert("a", "x", ""), 0);
  Call call;
  call.in("a").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.rcCell(1), ecfToSqlError(MD_RC_NO_DATA));
  EXPECT_EQ(call.message(), "");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(OneKeyApi, RetrieveKeysListsAll) {
  ASSERT_EQ(insert("a", "x"), 0);
  ASSERT_EQ(insert("b", "y"), 0);
  Call call;
  call.rc().out().run(GetParam().retrieveKeys);
  EXPECT_EQ(call.rcCell(0), 0);
  EXPECT_EQ(call.textAt(1), listOf("a|b|"));
}

TEST_P(OneKeyApi, RetrieveKeysOfAnEmptyStoreIsMissingWithoutToken) {
  Call call;
  call.rc().out().run(GetParam().retrieveKeys);
  EXPECT_EQ(call.rcCell(0), GetParam().missingCode);
  EXPECT_EQ(call.message(), "");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(OneKeyApi, RetrieveAllFillsThreeParallelLists) {
  ASSERT_EQ(insert("a", "x", "1"), 0);
  ASSERT_EQ(insert("b", "y", ""), 0);
  Call call;
  call.rc().out().out().out().run(GetParam().retrieveAll);
  EXPECT_EQ(call.rcCell(0), 0);
  EXPECT_EQ(call.textAt(1), listOf("a|b|"));
  EXPECT_EQ(call.textAt(2), listOf("x|y|"));
  EXPECT_EQ(call.textAt(3), listOf("1||"));
}

TEST_P(OneKeyApi, RetrieveAllOfAnEmptyStoreWritesNoneOfItsOutputs) {
  Call call;
  call.rc().out().out().out().run(GetParam().retrieveAll);
  EXPECT_EQ(call.rcCell(0), GetParam().missingCode);
  EXPECT_EQ(call.message(), "");
  EXPECT_TRUE(call.areOutputsUntouched());
}

TEST_P(OneKeyApi, InsertOfAKeyThatExistsNamesIt) {
  ASSERT_EQ(insert("a", "x"), 0);
  Call call;
  runInsert(call, "a", "y", "1");
  EXPECT_EQ(call.rcCell(3), GetParam().existsCode);
  EXPECT_EQ(call.sqlcode(), GetParam().existsCode);
  EXPECT_EQ(call.message(), "a");
}

TEST_P(OneKeyApi, InsertPassesTheCodesOfTheChecks) {
  EXPECT_EQ(insert("", "x"), ecfToSqlError(MD_RC_KEY_EMPTY));
  EXPECT_EQ(insert(std::string(129, 'k'), "x"), ecfToSqlError(MD_RC_KEY_TOO_LONG));
  EXPECT_EQ(insert("a", ""), ecfToSqlError(MD_RC_DATA_EMPTY));
  EXPECT_EQ(insert("a", std::string(1'024'001, 'd')), ecfToSqlError(MD_RC_DATA_TOO_LONG));
}

TEST_P(OneKeyApi, UpdateReplacesDataAndVersion) {
  ASSERT_EQ(insert("a", "x", "1"), 0);
  Call update;
  update.in("a").in("y").in("2").rc().run(GetParam().update);
  EXPECT_EQ(update.rcCell(3), 0);
  Call call;
  call.in("a").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.textAt(2) + call.textAt(3), "y2");
}

TEST_P(OneKeyApi, UpdateOfAMissingKeyNamesIt) {
  Call call;
  call.in("nobody").in("y").in("2").rc().run(GetParam().update);
  EXPECT_EQ(call.rcCell(3), GetParam().missingCode);
  EXPECT_EQ(call.message(), "nobody");
}

TEST_P(OneKeyApi, RemoveTakesTheRecord) {
  ASSERT_EQ(insert("a", "x"), 0);
  Call first;
  first.in("a").rc().run(GetParam().remove);
  EXPECT_EQ(first.rcCell(1), 0);
  Call second;
  second.in("a").rc().run(GetParam().remove);
  EXPECT_EQ(second.rcCell(1), GetParam().missingCode);
  EXPECT_EQ(second.message(), "a");
}

TEST_P(OneKeyApi, LargestRecordComesBackWhole) {
  const std::string data(1'024'000, 'd');
  ASSERT_EQ(insert("a", data), 0);
  Call call;
  call.in("a").rc().out().out().run(GetParam().retrieve);
  EXPECT_EQ(call.cellAt(2).length, 1'024'001U);
  EXPECT_TRUE(call.textAt(2) == data);
}

TEST_P(OneKeyApi, SecondCallLeavesTheFirstBufferWithTheCaller) {
  ASSERT_EQ(insert("a", "x"), 0);
  Call call;
  call.in("a").rc().out().out().run(GetParam().retrieve);
  char* const first[] = {call.cellAt(2).text, call.cellAt(3).text};
  call.run(GetParam().retrieve);
  EXPECT_NE(call.cellAt(2).text, first[0]);
  EXPECT_STREQ(first[0], "x");
  for (char* text : first) {
    void* buffer = text;
    _ossMemFree(&buffer, 0, 0, "test", 0);
  }
}

TEST_P(OneKeyApi, EveryCallOpensTheDirectoryOfItsMoment) {
  ASSERT_EQ(insert("a", "x"), 0);
  {
    const zontest::MetadataDirectory other;
    Call call;
    call.rc().out().run(GetParam().retrieveKeys);
    EXPECT_EQ(call.rcCell(0), GetParam().missingCode);
  }
  setMetadataPath(directory_.path().c_str());
  Call call;
  call.rc().out().run(GetParam().retrieveKeys);
  EXPECT_EQ(call.rcCell(0), 0);
}

}  // namespace
