// What the engine answers: records in the order of their insertion, those that the match callback takes, and counts of
// what is there.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "engine_promises.h"
#include "platform/registry/format.h"
#include "test_records.h"

namespace zon::test {
namespace {

class ScanOrder : public EnginePromises {};

TEST_F(ScanOrder, IsThatOfInsertionThroughChangeCompactionAndRepair) {
  fill(60, 3);
  Values expected = store_.list();
  for (std::size_t at = 0; at < expected.size(); at += 7) {
    expected[at].data = "changed " + std::to_string(at);
    ASSERT_EQ(store_.change(expected[at]), MD_RC_OK);
  }
  EXPECT_EQ(store_.list(), expected);
  const Value from = expected[5];
  expected[5].key = "renamed";
  ASSERT_EQ(store_.changeTo(from, expected[5]), MD_RC_OK);
  EXPECT_EQ(store_.list(), expected);
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  EXPECT_EQ(store_.list(), expected);
  ASSERT_EQ(store_.add({"g", "last", "x"}), MD_RC_OK);
  expected.push_back({"g", "last", "x"});
  flipByte(folder_.file(), format::LOG_START + 1024);
  ASSERT_EQ(store_.repair(), MD_RC_OK);
  EXPECT_TRUE(std::filesystem::exists(folder_.path() / "store.cor"));
  EXPECT_EQ(store_.list(), expected);
}

class MatchFlags : public EnginePromises {};

TEST_F(MatchFlags, WorkInAnyCombination) {
  for (int at = 0; at < 60; ++at) {
    ASSERT_EQ(store_.add({numbered("g", at % 4), numbered("k", at % 15), numbered("d", at % 3)}, 0), MD_RC_OK);
  }
  const Values all = store_.list();
  for (unsigned long flags = 0; flags < 64; ++flags) {
    const Value match{"g2", "k6", "d0"};
    auto key = encode(match, true);
    Values expected;
    for (const Value& value : all) {
      auto record = encode(value, true);
      if (matchRecord(flags, record.data(), key.data()) == 1) expected.push_back(value);
    }
    EXPECT_EQ(store_.list(flags, match), expected) << flags;
    Value found;
    const std::uint32_t rc = store_.get("g2", "k6", found, flags, "d0");
    ASSERT_EQ(rc, expected.empty() ? GENREG_RC_NOT_FOUND : MD_RC_OK) << flags;
    if (!expected.empty()) {
      EXPECT_EQ(found, expected.front()) << flags;
    }
  }
}

TEST_F(MatchFlags, TakeTheFirstOfTheRecordsThatAChangeMadeAlike) {
  ASSERT_EQ(store_.add({"g", "k", "first"}), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "other", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.changeTo({"g", "other", ""}, {"g", "k", "second"}), MD_RC_OK);
  Value value;
  ASSERT_EQ(store_.get("g", "k", value), MD_RC_OK);
  EXPECT_EQ(value.data, "first");
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  ASSERT_EQ(store_.get("g", "k", value), MD_RC_OK);
  EXPECT_EQ(value.data, "first");
  ASSERT_EQ(store_.remove("g", "k"), MD_RC_OK);
  EXPECT_EQ(store_.list(), Values({{"g", "k", "second"}}));
}

TEST_F(MatchFlags, TakeTheFirstOfTheRecordsThatDifferInMoreThanTheirKey) {
  ASSERT_EQ(store_.add({"g", "k", "first"}, WHOLE_KEY | DATA), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "k", "second"}, WHOLE_KEY | DATA), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "k", "second"}, WHOLE_KEY | DATA), GENREG_RC_DUPLICATE_KEY);
  Value value;
  ASSERT_EQ(store_.get("g", "k", value), MD_RC_OK);
  EXPECT_EQ(value.data, "first");
}

TEST_F(MatchFlags, DecideWhatAGroupDeleteTakes) {
  fill(100, 7);
  Values left;
  for (const Value& value : store_.list()) {
    if (value.group != "g3") left.push_back(value);
  }
  ASSERT_EQ(store_.removeAll("g3", "", GROUP), MD_RC_OK);
  EXPECT_EQ(store_.list(), left);
  EXPECT_EQ(store_.removeAll("g3", "", GROUP), GENREG_RC_NOT_FOUND);
  ASSERT_EQ(store_.remove("g4", "", GROUP), MD_RC_OK);
  left.erase(std::find_if(left.begin(), left.end(), [](const Value& value) { return value.group == "g4"; }));
  EXPECT_EQ(store_.list(), left);
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
    flipByte(folder_.file(), static_cast<std::streamoff>(slot));
    flipByte(folder_.file(), format::LOG_START + 2048);
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

TEST_F(Status, CountsWhatWasCommittedAndWhatLives) {
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
  EXPECT_EQ(status.fileBytes, std::filesystem::file_size(folder_.file()));
  EXPECT_EQ(status.backupBytes, 0u);
}

}  // namespace
}  // namespace zon::test
