// What every two-key store promises, run over all three of them. In these tests | stands for the list separator.
#include <gtest/gtest.h>

#include <string>

#include "support/kept_on_purpose.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCloningHistory.h"
#include "zonmdfile/MDJCLSkeleton.h"
#include "zonmdfile/MDUtilityHistory.h"
#include "zonmdfile/platform/return_codes.h"

namespace {

using zontest::listOf;
using zontest::Text;
using zontest::textOf;

template <class Store>
class TwoKeyStores : public zontest::MetadataTest {
 protected:
  std::uint32_t insert(const std::string& group, const std::string& key, const std::string& data = "x",
                       const std::string& version = "1") {
    return store_.insert(Text(group), Text(key), Text(data), DString(version.c_str()));
  }
  std::uint32_t update(const std::string& group, const std::string& key, const std::string& data,
                       const std::string& version = "1") {
    return store_.update(Text(group), Text(key), Text(data), DString(version.c_str()));
  }
  std::uint32_t retrieve(const std::string& group, const std::string& key) {
    return store_.retrieve(Text(group), Text(key), data_, version_);
  }
  std::uint32_t retrieveList(const std::string& group) {
    return store_.retrieveList(Text(group), keys_, data_, version_);
  }
  std::uint32_t retrieveAll() { return store_.retrieveAll(groups_, keys_, data_, version_); }
  std::string outputs() const {
    return textOf(groups_) + " " + textOf(keys_) + " " + textOf(data_) + " " + textOf(version_);
  }

  zontest::MemoryAccount account_{zontest::labelOf<Store>()};
  Store store_;
  DString groups_{"stale"};
  DString keys_{"stale"};
  DString data_{"stale"};
  DString version_{"stale"};
};

using Stores = testing::Types<MDJCLSkeleton, MDCloningHistory, MDUtilityHistory>;
TYPED_TEST_SUITE(TwoKeyStores, Stores);

TYPED_TEST(TwoKeyStores, ListOfAGroupWithoutRecordsIsEmpty) {
  ASSERT_EQ(this->insert("G", "K"), 0U);
  EXPECT_EQ(this->retrieveList("H"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(this->outputs(), "stale   ");
}

TYPED_TEST(TwoKeyStores, ListOfAGroupHoldsItsRecordsOnly) {
  ASSERT_EQ(this->insert("G", "K", "data", "7"), 0U);
  ASSERT_EQ(this->insert("H", "L", "other", "8"), 0U);
  EXPECT_EQ(this->retrieveList("G"), 0U);
  EXPECT_EQ(this->outputs(), listOf("stale K| data| 7|"));
}

TYPED_TEST(TwoKeyStores, ListsGroupKeysAndKeysInParallel) {
  ASSERT_EQ(this->insert("A", "1"), 0U);
  ASSERT_EQ(this->insert("A", "2"), 0U);
  ASSERT_EQ(this->insert("B", "1"), 0U);
  EXPECT_EQ(this->store_.retrieveKeys(this->groups_, this->keys_), 0U);
  EXPECT_EQ(textOf(this->groups_), listOf("A|A|B|"));
  EXPECT_EQ(textOf(this->keys_), listOf("1|2|1|"));
}

TYPED_TEST(TwoKeyStores, ListsAllFieldsWithDataBeforeVersions) {
  ASSERT_EQ(this->insert("A", "1", "x", "7"), 0U);
  ASSERT_EQ(this->insert("B", "2", "y", ""), 0U);
  EXPECT_EQ(this->retrieveAll(), 0U);
  EXPECT_EQ(this->outputs(), listOf("A|B| 1|2| x|y| 7||"));
}

TYPED_TEST(TwoKeyStores, NewFileListsNothing) {
  EXPECT_EQ(this->store_.retrieveKeys(this->groups_, this->keys_), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(this->outputs(), "  stale stale");
  EXPECT_EQ(this->retrieveAll(), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(this->outputs(), "   ");
}

TYPED_TEST(TwoKeyStores, AddressesARecordByBothKeys) {
  ASSERT_EQ(this->insert("G", "K", "one"), 0U);
  ASSERT_EQ(this->insert("G", "L", "two"), 0U);
  ASSERT_EQ(this->insert("H", "K", "three"), 0U);
  EXPECT_EQ(this->insert("G", "K", "four"), GENREG_RC_DUPLICATE_KEY);
  EXPECT_EQ(this->retrieve("H", "K"), 0U);
  EXPECT_EQ(textOf(this->data_), "three");
}

TYPED_TEST(TwoKeyStores, RefusesEmptyAndOverlongData) {
  EXPECT_EQ(this->insert("G", "K", ""), MD_RC_DATA_EMPTY);
  EXPECT_EQ(this->update("G", "K", ""), MD_RC_DATA_EMPTY);
  EXPECT_EQ(this->insert("G", "K", std::string(1'024'001, 'd')), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(this->update("G", "K", std::string(1'024'001, 'd')), MD_RC_DATA_TOO_LONG);
  EXPECT_TRUE(this->isUntouched());
}

TYPED_TEST(TwoKeyStores, ChecksGroupKeyThenKeyThenDataThenVersion) {
  const std::string tooLong(129, 'k');
  EXPECT_EQ(this->insert("", tooLong, ""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(this->insert(tooLong, "", ""), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(this->insert("G", tooLong, ""), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(this->insert("G", "K", "", "1234567890"), MD_RC_DATA_EMPTY);
  EXPECT_EQ(this->insert("G", "K", "x", "1234567890"), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(this->update("G", "K", "x", "1234567890"), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(this->store_.remove(Text(""), Text(tooLong)), MD_RC_KEY_EMPTY);
  EXPECT_EQ(this->store_.removeList(Text("")), MD_RC_KEY_EMPTY);
  EXPECT_EQ(this->insert("G", "K", "x", "123456789"), 0U);
}

TYPED_TEST(TwoKeyStores, FailedChecksLeaveTheOutputs) {
  EXPECT_EQ(this->retrieve("", "K"), MD_RC_KEY_EMPTY);
  EXPECT_EQ(this->retrieve("G", ""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(this->retrieveList(""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(this->outputs(), "stale stale stale stale");
}

TYPED_TEST(TwoKeyStores, UpdateWithTheSameBytesSucceeds) {
  ASSERT_EQ(this->insert("G", "K", "x", "1"), 0U);
  EXPECT_EQ(this->update("G", "K", "x", "1"), 0U);
}

TYPED_TEST(TwoKeyStores, UpdateReplacesDataAndVersion) {
  ASSERT_EQ(this->insert("G", "K", "x", "1"), 0U);
  EXPECT_EQ(this->update("G", "K", "longer", "2"), 0U);
  EXPECT_EQ(this->retrieve("G", "K"), 0U);
  EXPECT_EQ(textOf(this->data_), "longer");
  EXPECT_EQ(textOf(this->version_), "2");
  EXPECT_EQ(this->update("G", "L", "x"), GENREG_RC_NOT_FOUND);
}

TYPED_TEST(TwoKeyStores, RemoveListRemovesTheWholeGroup) {
  ASSERT_EQ(this->insert("G", "1"), 0U);
  ASSERT_EQ(this->insert("H", "1"), 0U);
  ASSERT_EQ(this->insert("G", "2"), 0U);
  EXPECT_EQ(this->store_.removeList(Text("G")), 0U);
  EXPECT_EQ(this->store_.retrieveKeys(this->groups_, this->keys_), 0U);
  EXPECT_EQ(textOf(this->groups_), listOf("H|"));
}

TYPED_TEST(TwoKeyStores, RemoveListLeavesFeature2OffAlsoWhenItFails) {
  EXPECT_EQ(this->store_.removeList(Text("G")), GENREG_RC_NOT_FOUND);
  EXPECT_FALSE(this->store_.hasFeature(2));
  ASSERT_EQ(this->insert("G", "1"), 0U);
  EXPECT_EQ(this->store_.removeList(Text("G")), 0U);
  EXPECT_FALSE(this->store_.hasFeature(2));
}

TYPED_TEST(TwoKeyStores, RemoveTakesOneRecord) {
  ASSERT_EQ(this->insert("G", "1"), 0U);
  ASSERT_EQ(this->insert("G", "2"), 0U);
  EXPECT_EQ(this->store_.remove(Text("G"), Text("1")), 0U);
  EXPECT_EQ(this->store_.remove(Text("G"), Text("1")), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(this->retrieveList("G"), 0U);
  EXPECT_EQ(textOf(this->keys_), listOf("2|"));
}

TYPED_TEST(TwoKeyStores, RetrieveOfAMissingRecordEmptiesTheOutputs) {
  EXPECT_EQ(this->retrieve("G", "K"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(this->outputs(), "stale stale  ");
}

TYPED_TEST(TwoKeyStores, LargestDataComesBackWhole) {
  const std::string data(1'024'000, 'd');
  ASSERT_EQ(this->insert("G", "K", data), 0U);
  EXPECT_EQ(this->retrieve("G", "K"), 0U);
  EXPECT_TRUE(textOf(this->data_) == data);
  EXPECT_EQ(this->retrieveList("G"), 0U);
  EXPECT_TRUE(textOf(this->data_) == listOf(data + "|"));
}

// Both record buffers of a scan that cannot begin are lost on purpose.
TYPED_TEST(TwoKeyStores, ScanThatCannotBeginKeepsItsBuffersAllocated) {
  const zontest::KeptOnPurpose kept;
  this->blockFile(TypeParam::FILENAME);
  EXPECT_EQ(this->store_.retrieveKeys(this->groups_, this->keys_), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(this->account_.buffers(), 2U);
  EXPECT_EQ(this->retrieveAll(), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(this->account_.buffers(), 4U);
  EXPECT_EQ(this->retrieveList("G"), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(this->account_.buffers(), 6U);
  EXPECT_EQ(this->outputs(), "stale stale stale stale");
}

TYPED_TEST(TwoKeyStores, ReleasesEveryBufferOtherwise) {
  this->insert("G", "K");
  this->insert("G", "K");
  this->retrieve("G", "K");
  this->retrieve("G", "L");
  this->retrieveAll();
  this->retrieveList("G");
  this->retrieveList("H");
  EXPECT_EQ(this->store_.retrieveKeys(this->groups_, this->keys_), 0U);
  EXPECT_EQ(this->store_.remove(Text("G"), Text("K")), 0U);
  EXPECT_EQ(this->store_.removeList(Text("G")), GENREG_RC_NOT_FOUND);
  this->retrieveAll();
  EXPECT_EQ(this->account_.buffers(), 0U);
}

template <class Store>
zontest::MemoryAccount accountOfTwoUpdates(Store& store) {
  const zontest::MemoryAccount account(zontest::labelOf<Store>());
  EXPECT_EQ(store.insert(Text("G"), Text("K"), Text("x"), DString("1")), 0U);
  EXPECT_EQ(store.update(Text("G"), Text("K"), Text("y"), DString("1")), 0U);
  EXPECT_EQ(store.update(Text("G"), Text("missing"), Text("y"), DString("1")), GENREG_RC_NOT_FOUND);
  return account;
}

class TwoKeyUpdate : public zontest::MetadataTest {};

TEST_F(TwoKeyUpdate, UtilityHistoryKeepsTheNewRecordAllocated) {
  MDUtilityHistory store;
  const zontest::MemoryAccount account = accountOfTwoUpdates(store);
  EXPECT_EQ(account.buffers(), 2U);
  EXPECT_EQ(account.bytes(), 2U * (2 + 276));
}

TEST_F(TwoKeyUpdate, OtherStoresReleaseBothRecords) {
  MDJCLSkeleton skeletons;
  MDCloningHistory history;
  EXPECT_EQ(accountOfTwoUpdates(skeletons).buffers(), 0U);
  EXPECT_EQ(accountOfTwoUpdates(history).buffers(), 0U);
}

TEST(TwoKeyFileNames, AreThoseOfTheirStores) {
  EXPECT_STREQ(MDJCLSkeleton::FILENAME, "zonjclskel");
  EXPECT_STREQ(MDCloningHistory::FILENAME, "zoncloninghistory");
  EXPECT_STREQ(MDUtilityHistory::FILENAME, "zonutilityhistory");
}

}  // namespace
