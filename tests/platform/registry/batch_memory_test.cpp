// A lack of memory within a batch: the change that met it has no effect, and the batch either goes on as if it had not
// been asked for, or has failed as a whole and says so to the end. Every allocation of every kind of change fails in
// turn, with changes of the same lists before and after it.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/registry/harness/allocation_faults.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

struct Change {
  const char* name;
  std::function<std::uint32_t(TestStore&)> make;
  std::function<void(Values&)> apply;
};

Value& recordOf(Values& values, const std::string& key) {
  return *std::find_if(values.begin(), values.end(), [&](const Value& value) { return value.key == key; });
}

// Made beforehand: what the test itself allocates is not to fail.
struct Records {
  std::vector<std::byte> added = encode({"g", "new", "data"});
  std::vector<std::byte> key = encode({"g", "1", "data"}, true);
  std::vector<std::byte> changed = encode({"g", "1", "changed"});
  std::vector<std::byte> moved = encode({"h", "1", "moved"});
};

std::vector<Change> changes(Records& records) {
  return {
      {"insertion", [&](TestStore& store) { return store.Add(WHOLE_KEY, records.added.data()); },
       [](Values& values) {
         values.push_back({"g", "new", "data"});
       }},
      {"change", [&](TestStore& store) { return store.Change(WHOLE_KEY, records.key.data(), records.changed.data()); },
       [](Values& values) { recordOf(values, "1").data = "changed"; }},
      {"move to another group",
       [&](TestStore& store) { return store.Change(WHOLE_KEY, records.key.data(), records.moved.data()); },
       [](Values& values) {
         recordOf(values, "1") = {"h", "1", "moved"};
       }},
      {"removal", [&](TestStore& store) { return store.Delete(WHOLE_KEY, records.key.data()); },
       [](Values& values) { std::erase_if(values, [](const Value& value) { return value.key == "1"; }); }},
      {"removal of a group",
       [&](TestStore& store) {
         store.setFeature(TestStore::FEATURE_DELETE_ALL);
         const std::uint32_t rc = store.Delete(GROUP, records.key.data());
         store.unsetFeature(TestStore::FEATURE_DELETE_ALL);
         return rc;
       },
       [](Values& values) { std::erase_if(values, [](const Value& value) { return value.group == "g"; }); }},
  };
}

class FailedAllocationInABatch : public ::testing::TestWithParam<std::size_t> {};

TEST_P(FailedAllocationInABatch, LeavesTheBatchWithoutThatChangeOrWithoutAny) {
  Records records;
  const Change change = changes(records)[GetParam()];
  bool hasFailed = true;
  for (long long number = 1; hasFailed; ++number) {
    TestFolder folder;
    TestStore store(folder.path());
    Values expected{{"g", "1", "data"}, {"g", "2", "data"}, {"h", "3", "data"}, {"h", "before", "data"}};
    for (std::size_t at = 0; at < 3; ++at) ASSERT_EQ(store.add(expected[at]), MD_RC_OK);
    const Values before(expected.begin(), expected.begin() + 3);
    ASSERT_EQ(store.beginBatch(), MD_RC_OK);
    ASSERT_EQ(store.add(expected[3]), MD_RC_OK);
    failAllocation(number, false);
    const std::uint32_t rc = change.make(store);
    hasFailed = stopFailing();
    ASSERT_EQ(rc, hasFailed ? GENREG_RC_NO_MEMORY : MD_RC_OK) << change.name << ", allocation " << number;
    if (rc == MD_RC_OK) change.apply(expected);
    const std::uint32_t next = store.add({"g", "after", "data"});
    ASSERT_TRUE(next == MD_RC_OK || next == rc) << change.name << ", allocation " << number;
    ASSERT_EQ(store.add({"g", "and after", "data"}), next) << change.name << ", allocation " << number;
    ASSERT_EQ(store.commitBatch(), next) << change.name << ", allocation " << number;
    if (next == MD_RC_OK) {
      expected.insert(expected.end(), {{"g", "after", "data"}, {"g", "and after", "data"}});
    } else {
      expected = before;
    }
    TestStore other(folder.path());
    EXPECT_EQ(other.list(), expected) << change.name << ", allocation " << number;
    for (const std::string group : {"g", "h"}) {
      Values ofGroup = expected;
      std::erase_if(ofGroup, [&](const Value& value) { return value.group != group; });
      EXPECT_EQ(other.list(GROUP, {group, "", ""}), ofGroup) << change.name << ", allocation " << number;
    }
    Value found;
    for (const Value& value : expected) {
      EXPECT_EQ(other.get(value.group, value.key, found), MD_RC_OK) << change.name << ", allocation " << number;
    }
    GenRegStatus status;
    ASSERT_EQ(other.status(status), MD_RC_OK);
    EXPECT_FALSE(status.damaged) << change.name << ", allocation " << number;
    ASSERT_LT(number, 1000);
  }
}

INSTANTIATE_TEST_SUITE_P(EveryChange, FailedAllocationInABatch, ::testing::Range<std::size_t>(0, 5));

}  // namespace
}  // namespace zon::test
