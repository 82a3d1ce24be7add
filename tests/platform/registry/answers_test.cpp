// What the engine answers: records in the order of their insertion, those that the match callback takes, and counts of
// what is there.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>

#include "platform/registry/format/format.h"
#include "platform/registry/harness/engine_promises.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

class ScanOrder : public EnginePromises {};

// Of compacted records, and of some that were added and changed behind them; every engine keeps it through the rest.
TEST_F(ScanOrder, IsThatOfInsertionThroughRepair) {
  fill(60, 3);
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "last", "x"}), MD_RC_OK);
  Values expected = store_.list();
  expected[5].data = "changed";
  ASSERT_EQ(store_.change(expected[5]), MD_RC_OK);
  const Value from = expected[7];
  expected[7].key = "renamed";
  ASSERT_EQ(store_.changeTo(from, expected[7]), MD_RC_OK);
  spoilByteOfFile(folder_.file(), format::LOG_START + 1024);
  ASSERT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_TRUE(std::filesystem::exists(folder_.path() / "store.cor"));
  EXPECT_EQ(store_.list(), expected);
}

class Status : public EnginePromises {};

TEST_F(Status, GoesOnCountingCommitsThroughCompactionAndRepair) {
  fill(60);
  GenRegStatus before;
  GenRegStatus after;
  ASSERT_EQ(store_.status(before), MD_RC_OK);
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  ASSERT_EQ(store_.status(after), MD_RC_OK);
  EXPECT_EQ(after.changes, before.changes + 1);
  // The newer slot goes, so that the other one alone tells how many there were; it is some commits behind.
  for (int at = 0; at < 5; ++at) ASSERT_EQ(store_.add({"g", numbered("later", at), "x"}), MD_RC_OK);
  ASSERT_EQ(store_.status(before), MD_RC_OK);
  for (const std::uint64_t slot : format::SLOT_OFFSET) {
    spoilByteOfFile(folder_.file(), slot);
    spoilByteOfFile(folder_.file(), format::LOG_START + 2048);
    ASSERT_EQ(store_.repair(), MD_RC_OK);
    ASSERT_EQ(store_.status(after), MD_RC_OK);
    EXPECT_GT(after.changes, before.changes) << slot;
    before = after;
  }
}

TEST_F(Status, TellsOfTheFileAndItsEngine) {
  fill(10);
  GenRegStatus status;
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_STREQ(status.engine, "file");
  EXPECT_EQ(status.fileBytes, std::filesystem::file_size(folder_.file()));
  EXPECT_EQ(status.backupBytes, 0u);
}

}  // namespace
}  // namespace zon::test
