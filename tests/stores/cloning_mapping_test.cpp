// The three-key store of cloning mappings. In these tests | stands for the list separator.
#include "zonmdfile/MDCloningMapping.h"

#include <gtest/gtest.h>

#include <string>

#include "support/kept_on_purpose.h"
#include "support/metadata_test.h"
#include "zonmdfile/platform/return_codes.h"

namespace {

using zontest::listOf;
using zontest::Text;
using zontest::textOf;

class CloningMapping : public zontest::MetadataTest {
 protected:
  std::uint32_t insert(const std::string& group, const std::string& subGroup, const std::string& key,
                       const std::string& data = "x", const std::string& version = "1") {
    return store_.insert(Text(group), Text(subGroup), Text(key), Text(data), DString(version.c_str()));
  }
  std::uint32_t update(const std::string& group, const std::string& subGroup, const std::string& key,
                       const std::string& data, const std::string& version = "1") {
    return store_.update(Text(group), Text(subGroup), Text(key), Text(data), DString(version.c_str()));
  }
  std::uint32_t retrieve(const std::string& group, const std::string& subGroup, const std::string& key) {
    return store_.retrieve(Text(group), Text(subGroup), Text(key), data_, version_);
  }
  std::uint32_t retrieveAll() { return store_.retrieveAll(groups_, subGroups_, keys_, data_, version_); }
  std::string outputs() const {
    return textOf(groups_) + " " + textOf(subGroups_) + " " + textOf(keys_) + " " + textOf(data_) + " " +
           textOf(version_);
  }

  zontest::MemoryAccount account_{zontest::labelOf<MDCloningMapping>()};
  MDCloningMapping store_;
  DString groups_{"stale"};
  DString subGroups_{"stale"};
  DString keys_{"stale"};
  DString data_{"stale"};
  DString version_{"stale"};
};

TEST_F(CloningMapping, ListsTheThreeKeysInParallel) {
  ASSERT_EQ(insert("G", "S", "K1"), 0U);
  ASSERT_EQ(insert("G", "S", "K2"), 0U);
  EXPECT_EQ(store_.retrieveKeys(groups_, subGroups_, keys_), 0U);
  EXPECT_EQ(outputs(), listOf("G|G| S|S| K1|K2| stale stale"));
}

TEST_F(CloningMapping, ListsAllFieldsWithDataBeforeVersions) {
  ASSERT_EQ(insert("G", "S", "K", "data", "7"), 0U);
  EXPECT_EQ(retrieveAll(), 0U);
  EXPECT_EQ(outputs(), listOf("G| S| K| data| 7|"));
}

TEST_F(CloningMapping, EmptyFileListsNothing) {
  EXPECT_EQ(retrieveAll(), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(outputs(), "    ");
  keys_ = "stale";
  EXPECT_EQ(store_.retrieveKeys(groups_, subGroups_, keys_), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(outputs(), "    ");
}

TEST_F(CloningMapping, RetrieveWithABadSubGroupKeyLeavesTheOutputs) {
  EXPECT_EQ(retrieve("G", "", "K"), MD_RC_KEY_EMPTY);
  EXPECT_EQ(retrieve("G", std::string(129, 's'), "K"), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(outputs(), "stale stale stale stale stale");
}

TEST_F(CloningMapping, ChecksTheKeysFromLeftToRightThenDataThenVersion) {
  const std::string tooLong(129, 'k');
  EXPECT_EQ(insert("", tooLong, tooLong, ""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(insert("G", "", tooLong, ""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(insert("G", "S", tooLong, ""), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(insert("G", "S", "K", "", "123456789"), MD_RC_DATA_EMPTY);
  EXPECT_EQ(insert("G", "S", "K", "x", "123456789"), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(update("G", "S", "K", "x", "123456789"), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(store_.remove(Text("G"), Text(""), Text(tooLong)), MD_RC_KEY_EMPTY);
  EXPECT_TRUE(isUntouched());
  EXPECT_EQ(insert("G", "S", "K", "x", "12345678"), 0U);
}

TEST_F(CloningMapping, AddressesARecordByAllThreeKeys) {
  ASSERT_EQ(insert("G", "S", "K", "one"), 0U);
  ASSERT_EQ(insert("G", "T", "K", "two"), 0U);
  ASSERT_EQ(insert("H", "S", "K", "three"), 0U);
  EXPECT_EQ(insert("G", "S", "K", "four"), GENREG_RC_DUPLICATE_KEY);
  EXPECT_EQ(retrieve("G", "T", "K"), 0U);
  EXPECT_EQ(textOf(data_), "two");
  EXPECT_EQ(store_.remove(Text("G"), Text("S"), Text("K")), 0U);
  EXPECT_EQ(retrieve("G", "S", "K"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(data_) + textOf(version_), "");
  EXPECT_EQ(store_.remove(Text("G"), Text("S"), Text("K")), GENREG_RC_NOT_FOUND);
}

TEST_F(CloningMapping, UpdateWithTheSameBytesSucceeds) {
  ASSERT_EQ(insert("G", "S", "K", "x", "1"), 0U);
  EXPECT_EQ(update("G", "S", "K", "x", "1"), 0U);
}

TEST_F(CloningMapping, UpdateReplacesDataAndVersion) {
  ASSERT_EQ(insert("G", "S", "K", "x", "1"), 0U);
  EXPECT_EQ(update("G", "S", "K", "longer", "2"), 0U);
  EXPECT_EQ(retrieve("G", "S", "K"), 0U);
  EXPECT_EQ(textOf(data_) + textOf(version_), "longer2");
  EXPECT_EQ(update("G", "S", "L", "x"), GENREG_RC_NOT_FOUND);
}

TEST_F(CloningMapping, LargestDataComesBackWhole) {
  const std::string data(1'024'000, 'd');
  ASSERT_EQ(insert("G", "S", "K", data), 0U);
  EXPECT_EQ(retrieve("G", "S", "K"), 0U);
  EXPECT_TRUE(textOf(data_) == data);
}

// Both record buffers of a scan that cannot begin are lost on purpose.
TEST_F(CloningMapping, ScanThatCannotBeginKeepsItsBuffersAllocated) {
  const zontest::KeptOnPurpose kept;
  blockFile(MDCloningMapping::FILENAME);
  EXPECT_EQ(store_.retrieveKeys(groups_, subGroups_, keys_), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(account_.buffers(), 2U);
  EXPECT_EQ(retrieveAll(), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(account_.buffers(), 4U);
  EXPECT_EQ(outputs(), "stale stale stale stale stale");
}

TEST_F(CloningMapping, ReleasesEveryBufferOtherwise) {
  insert("G", "S", "K");
  update("G", "S", "K", "y");
  update("G", "S", "L", "y");
  retrieve("G", "S", "K");
  retrieveAll();
  EXPECT_EQ(store_.remove(Text("G"), Text("S"), Text("K")), 0U);
  retrieveAll();
  EXPECT_EQ(account_.buffers(), 0U);
}

TEST(CloningMappingFileName, IsThatOfItsStore) { EXPECT_STREQ(MDCloningMapping::FILENAME, "zoncloningmapping"); }

}  // namespace
