// The names of a store's file and companions, for every place the file may have.
#include "record/record_file_names.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "support/metadata_test.h"
#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/MDJCLSkeleton.h"

namespace {

class RecordFileNames : public testing::Test {
 protected:
  void SetUp() override { ::unsetenv("ZON_METADATA_PATH"); }
  void TearDown() override { setMetadataPath(nullptr); }

  void form(const char* directory, const std::string& fileName) {
    setMetadataPath(directory);
    names_.emplace(fileName.c_str());
  }
  std::string file() const { return std::string(names_->all().file); }
  std::string temporary() const { return std::string(names_->all().temporary); }
  std::string corruptCopy() const { return std::string(names_->all().corruptCopy); }
  std::string lock() const { return std::string(names_->all().lock); }
  std::string backup() const { return std::string(names_->all().backup); }

  std::optional<zon::RecordFileNames> names_;
};

TEST_F(RecordFileNames, LieInTheMetadataDirectory) {
  form("/var/md", "zoncustomtree");
  EXPECT_EQ(file(), "/var/md/zoncustomtree");
  EXPECT_EQ(temporary(), "/var/md/zoncustomtree.tmp");
  EXPECT_EQ(corruptCopy(), "/var/md/zoncustomtree.cor");
  EXPECT_EQ(lock(), "/var/md/.zoncustomtree.lock");
  EXPECT_EQ(backup(), "/var/md/.zoncustomtree.bkp");
}

TEST_F(RecordFileNames, LieInADirectoryOfTheRoot) {
  form("/m", "zoncustomtree");
  EXPECT_EQ(lock(), "/m/.zoncustomtree.lock");
  EXPECT_EQ(temporary(), "/m/zoncustomtree.tmp");
}

TEST_F(RecordFileNames, AreBareWithoutAMetadataDirectory) {
  form(nullptr, "zoncustomtree");
  EXPECT_EQ(file(), "zoncustomtree");
  EXPECT_EQ(temporary(), "zoncustomtree.tmp");
  EXPECT_EQ(corruptCopy(), "zoncustomtree.cor");
  EXPECT_EQ(lock(), ".zoncustomtree.lock");
  EXPECT_EQ(backup(), ".zoncustomtree.bkp");
}

TEST_F(RecordFileNames, HaveNoDirectoryPartInADirectoryNamedDot) {
  form(".", "zoncustomtree");
  EXPECT_EQ(file(), "./zoncustomtree");
  EXPECT_EQ(lock(), ".zoncustomtree.lock");
  EXPECT_EQ(backup(), ".zoncustomtree.bkp");
}

TEST_F(RecordFileNames, KeepADirectoryThatOnlyBeginsWithADot) {
  form("..", "zoncustomtree");
  EXPECT_EQ(lock(), "../.zoncustomtree.lock");
  EXPECT_EQ(backup(), "../.zoncustomtree.bkp");
}

TEST_F(RecordFileNames, AreCutAt4095Bytes) {
  const std::string longName(5000, 'n');
  form(nullptr, longName);
  EXPECT_EQ(file(), longName.substr(0, 4095));
  EXPECT_EQ(temporary().size(), 4095U);
  EXPECT_EQ(lock(), "." + longName.substr(0, 4094));
}

TEST_F(RecordFileNames, CompanionsAreCutBehindTheirPath) {
  form(nullptr, std::string(4093, 'n'));
  EXPECT_EQ(file().size(), 4093U);
  EXPECT_EQ(temporary(), std::string(4093, 'n') + ".t");
  EXPECT_EQ(corruptCopy(), std::string(4093, 'n') + ".c");
}

TEST(StoreObject, TouchesNoFileWhenMadeAndDestroyed) {
  zontest::MetadataDirectory directory;
  {
    MDContact oneKey;
    MDJCLSkeleton twoKey;
    MDCloningMapping threeKey;
  }
  EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST(StoreObject, SwitchesOnRepairAndBackup) {
  zontest::MetadataDirectory directory;
  MDContact store;
  EXPECT_TRUE(store.hasFeature(0));
  EXPECT_TRUE(store.hasFeature(1));
  EXPECT_FALSE(store.hasFeature(2));
}

// A store that lets the test look at what the record type set.
class OpenedStore : public MDOneKeyReg {
 public:
  explicit OpenedStore(const char* fileName) : MDOneKeyReg(fileName) {}
  std::uint64_t options() const { return options_; }
  std::uint32_t fileMode() const { return fileMode_; }
  std::uint32_t companionMode() const { return companionMode_; }
  std::string path() const { return std::string(fileNames().file); }
};

TEST(StoreObject, AsksForDurableChangesAndMode0666) {
  zontest::MetadataDirectory directory;
  const OpenedStore store("zonanything");
  EXPECT_EQ(store.options() & 0x100, 0x100U);
  EXPECT_EQ(store.fileMode(), 0666U);
  EXPECT_EQ(store.companionMode(), 0666U);
  EXPECT_EQ(store.path(), (directory / "zonanything").string());
}

TEST(StoreObject, AsksForTheMetadataDirectoryAnewEachTime) {
  zontest::MetadataDirectory first;
  const OpenedStore before("zonanything");
  setMetadataPath("/elsewhere");
  const OpenedStore after("zonanything");
  EXPECT_EQ(before.path(), (first / "zonanything").string());
  EXPECT_EQ(after.path(), "/elsewhere/zonanything");
}

}  // namespace
