// What writers are promised whatever engine has the records: turns, batches, counts and refusals. Run on every engine.
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/registry/engine_choice.h"
#include "platform/registry/harness/every_engine.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// ---- Writers and batches

class WritersOfEveryEngine : public EveryEngine {};
INSTANTIATE_TEST_SUITE_P(Engines, WritersOfEveryEngine, everyEngine(), engineName);

TEST_P(WritersOfEveryEngine, WaitForABatchNoLongerThanToldAndTellSo) {
  fill(3);
  TestStore batching(folder_.path());
  ASSERT_EQ(batching.beginBatch(), MD_RC_OK);
  store_.setLockWait(150);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(store_.add({"g", "k", "x"}), GENREG_RC_LOCK_TIMEOUT);
  EXPECT_EQ(store_.beginBatch(), GENREG_RC_LOCK_TIMEOUT);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(290));
  EXPECT_LT(took, std::chrono::milliseconds(900));
  ASSERT_EQ(batching.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
}

TEST_P(WritersOfEveryEngine, AreNotWaitedForByTheirOwnBatch) {
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  store_.setLockWait(0);
  EXPECT_EQ(store_.add({"g", "first", "makes the file"}), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "second", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 2u);
}

class BatchesOfEveryEngine : public EveryEngine {};
INSTANTIATE_TEST_SUITE_P(Engines, BatchesOfEveryEngine, everyEngine(), engineName);

TEST_P(BatchesOfEveryEngine, LeaveNothingWhenTheyAreAbandoned) {
  fill(20);
  const Values before = store_.list();
  {
    TestStore batching(folder_.path());
    ASSERT_EQ(batching.beginBatch(), MD_RC_OK);
    ASSERT_EQ(batching.add({"g", "never", "x"}), MD_RC_OK);
    ASSERT_EQ(batching.removeAll("g3", "", GROUP), MD_RC_OK);
    ASSERT_EQ(batching.OpenScan(), MD_RC_OK);
  }
  store_.setLockWait(0);
  EXPECT_EQ(store_.list(), before);
  EXPECT_EQ(store_.add({"g", "next", "x"}), MD_RC_OK);
}

TEST_P(BatchesOfEveryEngine, GoOnBehindAChangeThatWasRefused) {
  fill(3);
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "first", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "first", "y"}), GENREG_RC_DUPLICATE_KEY);
  EXPECT_EQ(store_.add({"g", "refuse me", "x"}), GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.remove("g", "none"), GENREG_RC_NOT_FOUND);
  ASSERT_EQ(store_.add({"g", "second", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 5u);
}

TEST_P(BatchesOfEveryEngine, ABatchEndsAScanOfItsOwnState) {
  fill(5);
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "in the batch", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "refused", "x"}), GENREG_RC_SCAN_OPEN);
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  ASSERT_EQ(store_.GetNext(0, key.data(), out.data()), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.GetNext(0, key.data(), out.data()), GENREG_RC_NO_SCAN);
  EXPECT_EQ(store_.CloseScan(), GENREG_RC_NO_SCAN);
  EXPECT_EQ(store_.list().size(), 6u);
}

// ---- What status tells

class StatusOfEveryEngine : public EveryEngine {};
INSTANTIATE_TEST_SUITE_P(Engines, StatusOfEveryEngine, everyEngine(), engineName);

TEST_P(StatusOfEveryEngine, CountsWhatWasCommittedAndWhatLives) {
  GenRegStatus status;
  for (std::uint64_t at = 1; at < 8; ++at) {
    ASSERT_EQ(store_.add({"g", numbered("k", static_cast<int>(at)), std::string(at, 'x')}), MD_RC_OK);
    ASSERT_EQ(store_.status(status), MD_RC_OK);
    EXPECT_EQ(status.changes, at);
    EXPECT_EQ(status.records, at);
  }
  ASSERT_EQ(store_.change({"g", "k1", noise(50, 1)}), MD_RC_OK);
  ASSERT_EQ(store_.remove("g", "k2"), MD_RC_OK);
  ASSERT_EQ(store_.changeTo({"g", "k3", ""}, {"other", "moved", "y"}), MD_RC_OK);
  std::uint64_t bytes = 0;
  for (const Value& value : store_.list()) bytes += encode(value).size();
  ASSERT_EQ(store_.status(status), MD_RC_OK);
  EXPECT_EQ(status.changes, 10u);
  EXPECT_EQ(status.records, 6u);
  EXPECT_EQ(status.recordBytes, bytes);
}

// ---- Position

// Asks the engine itself, as a watcher inside the library would.
class WatchedStore : public TestStore {
 public:
  using TestStore::TestStore;
  std::uint64_t position() const {
    std::uint64_t position = 0;
    EXPECT_EQ(zon::onEngine(engineSettings(), [&](RecordEngine& engine) { return engine.position(position); }),
              MD_RC_OK);
    return position;
  }
};

class PositionOfEveryEngine : public EveryEngine {
 protected:
  WatchedStore watched_{folder_.path()};
};
INSTANTIATE_TEST_SUITE_P(Engines, PositionOfEveryEngine, everyEngine(), engineName);

TEST_P(PositionOfEveryEngine, GrowsWithEachCommit) {
  std::uint64_t before = watched_.position();
  EXPECT_EQ(before, 0u);
  const auto expectGrowth = [&](std::uint32_t rc, const char* what) {
    EXPECT_EQ(rc, MD_RC_OK) << what;
    const std::uint64_t now = watched_.position();
    EXPECT_GT(now, before) << what;
    before = now;
  };
  for (int at = 0; at < 60; ++at) {
    expectGrowth(store_.add({"g", numbered("k", at), noise(4000, static_cast<unsigned>(at))}), "add");
    expectGrowth(store_.change({"g", numbered("k", at), noise(4000, static_cast<unsigned>(at) + 1)}), "change");
    if (at % 3 == 0) expectGrowth(store_.remove("g", numbered("k", at)), "remove");
    if (at % 10 == 9) {
      ASSERT_EQ(store_.compact(), MD_RC_OK);
    }
  }
  before = watched_.position();
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "in a batch", "x"}), MD_RC_OK);
  EXPECT_EQ(watched_.position(), before);
  expectGrowth(store_.commitBatch(), "batch");
  expectGrowth(store_.removeAll("g", "", GROUP), "remove all");
}

TEST_P(PositionOfEveryEngine, StandsStillWhereNothingWasCommitted) {
  fill(5);
  const std::uint64_t before = watched_.position();
  EXPECT_EQ(store_.add({"g0", "k0", "x"}), GENREG_RC_DUPLICATE_KEY);
  EXPECT_EQ(store_.change({"g0", "k0", noise(100, 0)}), GENREG_RC_NO_CHANGE);
  EXPECT_EQ(store_.remove("g", "none"), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.list().size(), 5u);
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(watched_.position(), before);
}

// ---- Refusals

class RefusalsOfEveryEngine : public EveryEngine {};
INSTANTIATE_TEST_SUITE_P(Engines, RefusalsOfEveryEngine, everyEngine(), engineName);

TEST_P(RefusalsOfEveryEngine, TellTheirCause) {
  EXPECT_EQ(store_.add({"g", "refuse me", "x"}), GENREG_RC_BAD_RECORD);
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "k", "y"}), GENREG_RC_DUPLICATE_KEY);
  EXPECT_EQ(store_.change({"g", "k", "x"}), GENREG_RC_NO_CHANGE);
  EXPECT_EQ(store_.change({"g", "none", "x"}), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.changeTo({"g", "k", ""}, {"g", "refuse me", "x"}), GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.CloseScan(), GENREG_RC_NO_SCAN);
  EXPECT_EQ(store_.commitBatch(), GENREG_RC_NO_BATCH);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  EXPECT_EQ(store_.OpenScan(), GENREG_RC_SCAN_OPEN);
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
}

TEST_P(RefusalsOfEveryEngine, ConcernRecordsThatAreLongerThanTheLargest) {
  const std::string largest(MAX_DATA - 1, '\0');
  ASSERT_EQ(store_.add({"g", "largest", largest}), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "zeros", largest + std::string(100, '\0')}), GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.add({"g", "letters", largest + "letters"}), GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.changeTo({"g", "largest", ""}, {"g", "largest", largest + std::string(100, '\0')}),
            GENREG_RC_BAD_RECORD);
  EXPECT_EQ(store_.list().size(), 1u);
}

TEST_P(RefusalsOfEveryEngine, ConcernRecordsWhoseSizeIsNotTold) {
  class Sizeless : public TestStore {
   public:
    Sizeless(const std::filesystem::path& folder, SizeCallback size) : TestStore(folder) {
      callbacks_.recordSize = size;
    }
  };
  Sizeless refusing(folder_.path(), [](void* record, unsigned long* size) { return recordSize(record, size) + 1; });
  EXPECT_EQ(refusing.add({"g", "k", "x"}), GENREG_RC_BAD_RECORD);
  Sizeless empty(folder_.path(), [](void*, unsigned long* size) {
    *size = 0;
    return 0;
  });
  EXPECT_EQ(empty.add({"g", "k", "x"}), GENREG_RC_BAD_RECORD);
  EXPECT_TRUE(store_.list().empty());
}

TEST_P(RefusalsOfEveryEngine, MeetASecondBatchOfTheSameObject) {
  store_.setLockWait(0);
  for (const bool hasFile : {false, true}) {
    ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
    EXPECT_EQ(store_.beginBatch(), GENREG_RC_BATCH_OPEN) << hasFile;
    ASSERT_EQ(store_.add({"g", numbered("k", hasFile), "x"}), MD_RC_OK);
    EXPECT_EQ(store_.beginBatch(), GENREG_RC_BATCH_OPEN) << hasFile;
    EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
    EXPECT_EQ(store_.commitBatch(), GENREG_RC_NO_BATCH);
  }
  EXPECT_EQ(store_.list().size(), 2u);
}

TEST_P(RefusalsOfEveryEngine, MeetCareOfTheFileWithinABatch) {
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
  EXPECT_EQ(store_.compact(), GENREG_RC_BATCH_OPEN);
  EXPECT_EQ(store_.repair(), GENREG_RC_BATCH_OPEN);
  ASSERT_EQ(store_.add({"g", "l", "x"}), MD_RC_OK);
  EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.compact(), MD_RC_OK);
  EXPECT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 2u);
}

TEST_P(RefusalsOfEveryEngine, MeetCareOfTheFileWithinAScan) {
  ASSERT_EQ(store_.add({"g", "k", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  EXPECT_EQ(store_.compact(), GENREG_RC_SCAN_OPEN);
  EXPECT_EQ(store_.repair(), GENREG_RC_SCAN_OPEN);
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
  EXPECT_EQ(store_.compact(), MD_RC_OK);
}

}  // namespace
}  // namespace zon::test
