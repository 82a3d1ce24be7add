// The settings of an engine object: the names of its files, kept, cut, replaced, and lost for want of memory.
//
// The rule: allocations fail only while names are set.
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/registry/harness/allocation_faults.h"
#include "platform/registry/harness/test_records.h"
#include "zonmdfile/platform/GenRegFile.h"

namespace zon::test {
namespace {

// Shows its names, and can lose them.
class NamedStore : public TestStore {
 public:
  using TestStore::fileNames;
  using TestStore::setFileNames;
  using TestStore::TestStore;

  // Whether memory was asked for, in vain.
  bool setFileNamesWithoutMemory() {
    const FileNames names = fileNames();
    failAllocation(1, true);
    setFileNames(names);
    return stopFailing();
  }
};

// What each operation that looks at the files answers, in the order of the headers.
std::vector<std::uint32_t> answersOf(TestStore& store) {
  Value value;
  GenRegStatus status;
  return {store.add({"g", "new", "x"}),
          store.get("g", "k", value),
          store.change({"g", "k", "other"}),
          store.remove("g", "k"),
          store.OpenScan(),
          store.beginBatch(),
          store.status(status),
          store.repair(),
          store.compact(),
          store.acknowledgeLoss()};
}

class FileNames : public testing::Test {
 protected:
  FileNames() { EXPECT_EQ(TestStore(folder_.path()).add({"g", "k", "x"}), MD_RC_OK); }

  TestFolder folder_;
  NamedStore store_{folder_.path()};
};

TEST_F(FileNames, WithoutMemoryForThemMakeEveryOperationFail) {
  ASSERT_TRUE(store_.setFileNamesWithoutMemory());
  const std::vector<std::uint32_t> answers = answersOf(store_);
  EXPECT_EQ(answers, std::vector<std::uint32_t>(answers.size(), GENREG_RC_NO_MEMORY));
}

TEST_F(FileNames, WithoutMemoryForThemLeaveTheRecordsAsTheyWere) {
  ASSERT_TRUE(store_.setFileNamesWithoutMemory());
  answersOf(store_);
  EXPECT_EQ(TestStore(folder_.path()).list(), (Values{{"g", "k", "x"}}));
}

TEST_F(FileNames, SetAgainAfterTheyWereLostAreUsed) {
  ASSERT_TRUE(store_.setFileNamesWithoutMemory());
  const NamedStore other(folder_.path());
  store_.setFileNames(other.fileNames());
  EXPECT_EQ(store_.list(), (Values{{"g", "k", "x"}}));
}

// A record type's constructor has nobody to tell of an exception.
TEST_F(FileNames, AreSetWithoutAnException) {
  EXPECT_TRUE(noexcept(store_.setFileNames(std::declval<const GenRegBase::FileNames&>())));
}

TEST_F(FileNames, ReplacedByPartsOfThemselvesAreRight) {
  GenRegBase::FileNames names = store_.fileNames();
  const std::string directory = folder_.path().string() + "/";
  const std::string shorter = std::string(names.file.substr(0, names.file.size() - 1));
  names.file.remove_suffix(1);
  store_.setFileNames(names);
  EXPECT_EQ(store_.fileNames().file, shorter);
  EXPECT_EQ(store_.fileNames().temporary, directory + "store.tmp");
  EXPECT_EQ(store_.fileNames().backup, directory + ".store.bkp");
}

TEST_F(FileNames, AreFollowedByANul) {
  const GenRegBase::FileNames& names = store_.fileNames();
  for (const std::string_view name : {names.file, names.temporary, names.corruptCopy, names.lock, names.backup}) {
    EXPECT_EQ(std::string(name.data()), name);
  }
}

TEST_F(FileNames, OfAnObjectAreReleasedWithIt) {
  const long long before = liveAllocations();
  {
    NamedStore store(folder_.path());
    store.setFileNames(store.fileNames());
  }
  EXPECT_EQ(liveAllocations(), before);
}

}  // namespace
}  // namespace zon::test
