// What every one-key store promises, run over all six of them. In these tests | stands for the list separator.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>

#include "support/metadata_test.h"
#include "zonmdfile/MDCloningSubSystemSetting.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDLocationMapping.h"
#include "zonmdfile/MDSubSystemSetting.h"
#include "zonmdfile/MDUtilNameMapping.h"
#include "zonmdfile/platform/return_codes.h"

namespace {

using zontest::listOf;
using zontest::Text;
using zontest::textOf;

template <class Store>
class OneKeyStores : public zontest::MetadataTest {
 protected:
  std::uint32_t insert(const std::string& key, const std::string& data, const std::string& version = "1") {
    return store_.insert(Text(key), Text(data), DString(version.c_str()));
  }
  std::uint32_t update(const std::string& key, const std::string& data, const std::string& version = "1") {
    return store_.update(Text(key), Text(data), DString(version.c_str()));
  }
  std::uint32_t retrieve(const std::string& key) { return store_.retrieve(Text(key), data_, version_); }
  std::uint32_t retrieveAll() { return store_.retrieveAll(keys_, data_, version_); }

  Store store_;
  DString keys_{"stale"};
  DString data_{"stale"};
  DString version_{"stale"};
};

using Stores = testing::Types<MDCustomTree, MDSubSystemSetting, MDUtilNameMapping, MDLocationMapping,
                              MDCloningSubSystemSetting, MDContact>;
TYPED_TEST_SUITE(OneKeyStores, Stores);

TYPED_TEST(OneKeyStores, ListsKeysEachFollowedByTheSeparator) {
  ASSERT_EQ(this->insert("A", "x"), 0U);
  ASSERT_EQ(this->insert("B", "y"), 0U);
  EXPECT_EQ(this->store_.retrieveKeys(this->keys_), 0U);
  EXPECT_EQ(textOf(this->keys_), listOf("A|B|"));
}

// Record buffers come from the pool of the whole process: none of a record's bytes may reach who gets one next.
void expectCleanBuffers(const std::string& what) {
  constexpr std::size_t BUFFER_SIZE = 1024148;
  void* buffers[4] = {};
  for (void*& buffer : buffers) {
    ASSERT_EQ(_ossMemAlloc(&buffer, 0, BUFFER_SIZE, 1, "test", 0), 0);
    const auto* bytes = static_cast<const char*>(buffer);
    EXPECT_EQ(std::count(bytes, bytes + BUFFER_SIZE, 0), static_cast<std::ptrdiff_t>(BUFFER_SIZE)) << what;
  }
  for (void*& buffer : buffers) _ossMemFree(&buffer, 0, 0, "test", 0);
}

TYPED_TEST(OneKeyStores, LeaveNothingInTheBuffersTheyGiveBack) {
  const std::size_t sizes[] = {100, 15000, 40000, 1024000, 1};
  const auto keyOf = [](std::size_t size) { return "key of " + std::to_string(size); };
  for (const std::size_t size : sizes) {
    ASSERT_EQ(this->insert(keyOf(size), std::string(size, 'x')), 0U);
    expectCleanBuffers("insert");
    ASSERT_EQ(this->retrieveAll(), 0U);
    expectCleanBuffers("list");
  }
  for (const std::size_t size : sizes) {
    ASSERT_EQ(this->retrieve(keyOf(size)), 0U);
    expectCleanBuffers("retrieve");
    ASSERT_EQ(this->insert(keyOf(size), "y"), GENREG_RC_DUPLICATE_KEY);
    expectCleanBuffers("refused insert");
    ASSERT_EQ(this->update(keyOf(size), std::string(size, 'y')), 0U);
    expectCleanBuffers("update");
    ASSERT_EQ(this->store_.remove(Text(keyOf(size))), 0U);
    expectCleanBuffers("remove");
    ASSERT_EQ(this->retrieve(keyOf(size)), GENREG_RC_NOT_FOUND);
    expectCleanBuffers("retrieve what is absent");
  }
}

TYPED_TEST(OneKeyStores, NewFileListsNothing) {
  EXPECT_EQ(this->store_.retrieveKeys(this->keys_), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(this->keys_), "");
  this->keys_ = "stale";
  EXPECT_EQ(this->retrieveAll(), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(this->keys_) + textOf(this->data_) + textOf(this->version_), "");
}

TYPED_TEST(OneKeyStores, EmptiedFileListsNothing) {
  ASSERT_EQ(this->insert("A", "x"), 0U);
  ASSERT_EQ(this->store_.remove(Text("A")), 0U);
  EXPECT_EQ(this->store_.retrieveKeys(this->keys_), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(this->keys_), "");
}

TYPED_TEST(OneKeyStores, ReturnsWhatWasInserted) {
  ASSERT_EQ(this->insert("A", "some data", "1.0"), 0U);
  EXPECT_EQ(this->retrieve("A"), 0U);
  EXPECT_EQ(textOf(this->data_), "some data");
  EXPECT_EQ(textOf(this->version_), "1.0");
}

TYPED_TEST(OneKeyStores, RefusesASecondRecordOfTheSameKey) {
  ASSERT_EQ(this->insert("A", "x"), 0U);
  EXPECT_EQ(this->insert("A", "y"), GENREG_RC_DUPLICATE_KEY);
  EXPECT_EQ(this->retrieve("A"), 0U);
  EXPECT_EQ(textOf(this->data_), "x");
}

TYPED_TEST(OneKeyStores, UpdateReplacesDataAndVersion) {
  ASSERT_EQ(this->insert("A", "x", "1"), 0U);
  ASSERT_EQ(this->insert("B", "z", "1"), 0U);
  EXPECT_EQ(this->update("A", "a longer text", "2"), 0U);
  EXPECT_EQ(this->retrieveAll(), 0U);
  EXPECT_EQ(textOf(this->keys_), listOf("A|B|"));
  EXPECT_EQ(textOf(this->data_), listOf("a longer text|z|"));
  EXPECT_EQ(textOf(this->version_), listOf("2|1|"));
}

TYPED_TEST(OneKeyStores, UpdateWithTheSameBytesSucceeds) {
  ASSERT_EQ(this->insert("A", "x", "1"), 0U);
  EXPECT_EQ(this->update("A", "x", "1"), 0U);
}

TYPED_TEST(OneKeyStores, UpdateOfAMissingKeyIsNotFound) { EXPECT_EQ(this->update("A", "x"), GENREG_RC_NOT_FOUND); }

TYPED_TEST(OneKeyStores, RemoveOfAMissingKeyIsNotFound) {
  EXPECT_EQ(this->store_.remove(Text("A")), GENREG_RC_NOT_FOUND);
}

TYPED_TEST(OneKeyStores, RetrieveOfAMissingKeyEmptiesTheOutputs) {
  EXPECT_EQ(this->retrieve("A"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(textOf(this->data_), "");
  EXPECT_EQ(textOf(this->version_), "");
}

TYPED_TEST(OneKeyStores, RetrieveWithABadKeyLeavesTheOutputs) {
  EXPECT_EQ(this->retrieve(""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(this->retrieve(std::string(129, 'k')), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(textOf(this->data_), "stale");
  EXPECT_EQ(textOf(this->version_), "stale");
}

TYPED_TEST(OneKeyStores, ChecksTheKeyBeforeTheData) {
  EXPECT_EQ(this->insert("", ""), MD_RC_KEY_EMPTY);
  EXPECT_EQ(this->update(std::string(129, 'k'), ""), MD_RC_KEY_TOO_LONG);
  EXPECT_EQ(this->insert("A", ""), MD_RC_DATA_EMPTY);
  EXPECT_EQ(this->update("A", std::string(1'024'001, 'd')), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(this->store_.remove(Text("")), MD_RC_KEY_EMPTY);
}

TYPED_TEST(OneKeyStores, RefusalsTouchNoFile) {
  this->insert("", "x");
  this->insert("A", "");
  this->insert("A", "x", "12345678901");
  this->update("", "x");
  EXPECT_NE(this->store_.remove(Text("")), 0U);
  EXPECT_TRUE(this->isUntouched());
}

TYPED_TEST(OneKeyStores, RefusesAVersionThatDoesNotFitAfterTheOtherChecks) {
  ASSERT_EQ(this->insert("A", "x", "1234567890"), 0U);
  EXPECT_EQ(this->update("A", "y", "12345678901"), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(this->insert("B", "y", "12345678901"), MD_RC_DATA_TOO_LONG);
  EXPECT_EQ(this->insert("B", "", "12345678901"), MD_RC_DATA_EMPTY);
  EXPECT_EQ(this->retrieveAll(), 0U);
  EXPECT_EQ(textOf(this->data_), listOf("x|"));
  EXPECT_EQ(textOf(this->version_), listOf("1234567890|"));
}

TYPED_TEST(OneKeyStores, EmptyVersionContributesJustASeparator) {
  ASSERT_EQ(this->insert("A", "x", ""), 0U);
  ASSERT_EQ(this->insert("B", "y", "2"), 0U);
  EXPECT_EQ(this->retrieveAll(), 0U);
  EXPECT_EQ(textOf(this->keys_), listOf("A|B|"));
  EXPECT_EQ(textOf(this->data_), listOf("x|y|"));
  EXPECT_EQ(textOf(this->version_), listOf("|2|"));
}

TYPED_TEST(OneKeyStores, LargestKeyAndDataComeBackWhole) {
  const std::string key(128, 'k');
  const std::string data(1'024'000, 'd');
  ASSERT_EQ(this->insert(key, data), 0U);
  ASSERT_EQ(this->insert("small", "x"), 0U);
  EXPECT_EQ(this->retrieve(key), 0U);
  EXPECT_TRUE(textOf(this->data_) == data);
  EXPECT_EQ(this->retrieveAll(), 0U);
  EXPECT_EQ(textOf(this->keys_), listOf(key + "|small|"));
  EXPECT_TRUE(textOf(this->data_) == listOf(data + "|x|"));
  EXPECT_EQ(this->update(key, std::string(1'024'000, 'e')), 0U);
  EXPECT_EQ(this->store_.remove(Text(key)), 0U);
}

TYPED_TEST(OneKeyStores, LargestRecordFitsABufferOfTheMaximumSize) {
  constexpr std::size_t SIZE = 1024148;
  ASSERT_EQ(this->insert("A", std::string(1'024'000, 'd')), 0U);
  std::string key(SIZE, '\0');
  key[0] = 'A';
  std::string out(SIZE + 64, '\x7E');
  EXPECT_EQ(this->store_.Get(8, key.data(), out.data()), 0U);
  EXPECT_EQ(out.substr(SIZE), std::string(64, '\x7E'));
  ASSERT_EQ(this->store_.OpenScan(), 0U);
  EXPECT_EQ(this->store_.GetNext(0, key.data(), out.data()), 0U);
  EXPECT_EQ(this->store_.CloseScan(), 0U);
  EXPECT_EQ(out.substr(SIZE), std::string(64, '\x7E'));
}

TYPED_TEST(OneKeyStores, TextsEndAtTheirNul) {
  DString key("A\0x", 3);
  DString data("da\0ta", 5);
  ASSERT_EQ(this->store_.insert(key, data, DString("1\0", 2)), 0U);
  EXPECT_EQ(this->retrieve("A"), 0U);
  EXPECT_EQ(textOf(this->data_), "da");
  EXPECT_EQ(textOf(this->version_), "1");
}

TYPED_TEST(OneKeyStores, ListsDoNotEscapeTheSeparator) {
  ASSERT_EQ(this->insert(listOf("A|B"), listOf("x|")), 0U);
  EXPECT_EQ(this->retrieveAll(), 0U);
  EXPECT_EQ(textOf(this->keys_), listOf("A|B|"));
  EXPECT_EQ(textOf(this->data_), listOf("x||"));
  EXPECT_EQ(this->retrieve(listOf("A|B")), 0U);
}

TYPED_TEST(OneKeyStores, KeepsItsRecordsInItsOwnFile) {
  ASSERT_EQ(this->insert("A", "x"), 0U);
  EXPECT_TRUE(std::filesystem::exists(this->directory_ / TypeParam::FILENAME));
}

TYPED_TEST(OneKeyStores, ScanThatCannotBeginLeavesOutputsAndReleasesItsBuffers) {
  this->blockFile(TypeParam::FILENAME);
  EXPECT_EQ(this->store_.retrieveKeys(this->keys_), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(this->retrieveAll(), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(textOf(this->keys_) + textOf(this->data_), "stalestale");
  EXPECT_EQ(ossMemOutstanding(zontest::labelOf<TypeParam>()), 0U);
}

TYPED_TEST(OneKeyStores, EngineFailuresPassThrough) {
  this->blockFile(TypeParam::FILENAME);
  EXPECT_EQ(this->insert("A", "x"), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(this->update("A", "x"), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(this->store_.remove(Text("A")), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(this->retrieve("A"), GENREG_RC_NOT_REGULAR);
  EXPECT_EQ(textOf(this->data_), "");
}

TYPED_TEST(OneKeyStores, ReleasesEveryBuffer) {
  this->insert("A", "x");
  this->insert("A", "x");
  this->update("A", "y");
  this->update("B", "y");
  this->retrieve("A");
  this->retrieve("B");
  this->retrieveAll();
  EXPECT_EQ(this->store_.retrieveKeys(this->keys_), 0U);
  EXPECT_EQ(this->store_.remove(Text("A")), 0U);
  EXPECT_EQ(this->store_.remove(Text("A")), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(ossMemOutstanding(zontest::labelOf<TypeParam>()), 0U);
}

// The n-th allocation fails, for every n that an operation has.
template <class Operation>
void expectNoMemoryAtEachAllocation(const char* source, Operation operation) {
  for (std::uint64_t n = 1;; ++n) {
    const std::uint64_t before = ossMemAllocationCount();
    std::uint32_t rc;
    {
      const zontest::MemoryFault fault(n);
      rc = operation();
    }
    ASSERT_EQ(ossMemOutstanding(source), 0U) << "allocation " << n;
    if (ossMemAllocationCount() - before < n) {
      ASSERT_EQ(rc, 0U);
      ASSERT_GT(n, 1U);
      return;
    }
    ASSERT_EQ(rc, GENREG_RC_NO_MEMORY) << "allocation " << n;
  }
}

TYPED_TEST(OneKeyStores, EachFailedAllocationBecomesACode) {
  Text key("A");
  Text data("x");
  const DString version;  // costs no allocation when it is copied at the call
  expectNoMemoryAtEachAllocation(zontest::labelOf<TypeParam>(),
                                 [&] { return this->store_.insert(key, data, version); });
  Text newData("y");
  expectNoMemoryAtEachAllocation(zontest::labelOf<TypeParam>(),
                                 [&] { return this->store_.update(key, newData, version); });
  expectNoMemoryAtEachAllocation(zontest::labelOf<TypeParam>(),
                                 [&] { return this->store_.retrieve(key, this->data_, this->version_); });
  expectNoMemoryAtEachAllocation(zontest::labelOf<TypeParam>(), [&] { return this->retrieveAll(); });
  expectNoMemoryAtEachAllocation(zontest::labelOf<TypeParam>(), [&] { return this->store_.remove(key); });
}

TEST(OneKeyFileNames, AreThoseOfTheirStores) {
  EXPECT_STREQ(MDCustomTree::FILENAME, "zoncustomtree");
  EXPECT_STREQ(MDSubSystemSetting::FILENAME, "zonsubsystemsetting");
  EXPECT_STREQ(MDUtilNameMapping::FILENAME, "zonutilnamemap");
  EXPECT_STREQ(MDLocationMapping::FILENAME, "zonlocationmap");
  EXPECT_STREQ(MDCloningSubSystemSetting::FILENAME, "zoncloningsubsyssetting");
  EXPECT_STREQ(MDContact::FILENAME, "zoncontact");
}

}  // namespace
