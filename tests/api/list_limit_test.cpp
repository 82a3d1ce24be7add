// Lists that would be longer than their 32-bit length can tell, with the limit lowered to what a test can fill.
#include <gtest/gtest.h>

#include <string>

#include "api/entry_points.h"
#include "stores/list_limit.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/platform/admin.h"

namespace {

using zontest::Call;
using zontest::EntryPointCase;
using zontest::Text;

class LoweredLimit {
 public:
  explicit LoweredLimit(std::uint64_t bytes) { zon::mostListBytes = bytes; }
  ~LoweredLimit() { zon::mostListBytes = zon::MOST_LIST_BYTES; }
  LoweredLimit(const LoweredLimit&) = delete;
  LoweredLimit& operator=(const LoweredLimit&) = delete;
};

class ListLimit : public testing::TestWithParam<EntryPointCase> {};

std::string nameOf(const testing::TestParamInfo<EntryPointCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(All, ListLimit, testing::ValuesIn(zontest::allEntryPoints()), nameOf);

// One byte holds no list at all: every listing is refused, and nothing else is.
TEST_P(ListLimit, RefusesListsAndTouchesNoOutput) {
  const zontest::MetadataDirectory directory;
  zontest::insertSite();
  Call call;
  GetParam().fill(call);
  {
    const LoweredLimit limit(1);
    call.run(GetParam().function, GetParam().reserved());
  }
  const std::string name = GetParam().name;
  const bool lists = name.find("retrieve") != std::string::npos && name.find("_retrieve") + 9 != name.size();
  const bool gathersGroups = name == "MDContactGroup_updateDescription";
  const bool cascades = name.rfind("MDContact_remove", 0) == 0 || name.rfind("MDContactGroup_remove", 0) == 0;
  if (!lists && !gathersGroups) {
    if (!cascades) {
      EXPECT_EQ(call.sqlcode(), 0);
    }
    return;
  }
  const bool hidesCause = name == "ContactGroupAPI_retrieveAllContactNames";
  EXPECT_EQ(call.sqlcode(), ecfToSqlError(hidesCause ? MD_RC_NO_DATA : MD_RC_LIST_TOO_LONG));
  EXPECT_TRUE(call.areOutputsUntouched());
  for (std::size_t i = 0; i < std::string(GetParam().slots).size(); ++i) {
    if (GetParam().slots[i] == 'c') {
      EXPECT_EQ(call.numberAt(i), Call::MARK_NUMBER);
    }
  }
}

class ListLimitOfStores : public zontest::MetadataTest {
 protected:
  ListLimitOfStores() {
    for (const char* key : {"a", "b", "c"}) {
      EXPECT_EQ(MDCustomTree().insert(Text(key), Text(std::string(50000, 'd')), DString("1")), 0U);
    }
  }
  DString keys_{"stale"};
  DString data_{"stale"};
  DString versions_{"stale"};
};

TEST_F(ListLimitOfStores, TakesAListOfTheVeryLimit) {
  const LoweredLimit limit(3 * 50001);
  EXPECT_EQ(MDCustomTree().retrieveAll(keys_, data_, versions_), 0U);
  EXPECT_EQ(data_.length(), 3U * 50001);
}

TEST_F(ListLimitOfStores, RefusesOneByteMore) {
  const LoweredLimit limit(3 * 50001 - 1);
  EXPECT_EQ(MDCustomTree().retrieveAll(keys_, data_, versions_), MD_RC_LIST_TOO_LONG);
  EXPECT_EQ(zontest::textOf(keys_) + zontest::textOf(data_) + zontest::textOf(versions_), "stalestalestale");
}

TEST_F(ListLimitOfStores, ListsTheKeysOfRecordsThatAreTooLongTogether) {
  const LoweredLimit limit(50000);
  EXPECT_EQ(MDCustomTree().retrieveKeys(keys_), 0U);
  EXPECT_EQ(zontest::textOf(keys_), zontest::listOf("a|b|c|"));
}

TEST_F(ListLimitOfStores, SpendsNoMemoryOnWhatItRefuses) {
  const LoweredLimit limit(3 * 50001 - 1);
  const std::uint64_t before = ossMemAllocationCount();
  EXPECT_EQ(MDCustomTree().retrieveAll(keys_, data_, versions_), MD_RC_LIST_TOO_LONG);
  EXPECT_EQ(ossMemAllocationCount() - before, 2U);  // the match record and the result record
}

TEST_F(ListLimitOfStores, HoldsForThreeKeysToo) {
  MDCloningMapping store;
  ASSERT_EQ(store.insert(Text("g"), Text("s"), Text("k"), Text("data"), DString("1")), 0U);
  const LoweredLimit limit(4);
  EXPECT_EQ(store.retrieveAll(keys_, data_, versions_, keys_, data_), MD_RC_LIST_TOO_LONG);
}

}  // namespace
