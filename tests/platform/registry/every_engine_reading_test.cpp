// What readers are promised whatever engine has the records: one committed state, in its order, as the match callback
// decides. Run on every engine.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/harness/every_engine.h"
#include "platform/registry/harness/test_records.h"

namespace zon::test {
namespace {

// ---- Readers

class ReadersOfEveryEngine : public EveryEngine {};
INSTANTIATE_TEST_SUITE_P(Engines, ReadersOfEveryEngine, everyEngine(), engineName);

TEST_P(ReadersOfEveryEngine, FindNothingWhereNothingWasAdded) { expectNothingThere(); }

// Who gave a buffer of zeros need clear no more of it than what he was told of.
TEST_P(ReadersOfEveryEngine, LeaveZerosInABufferWhereNoneMatches) {
  ASSERT_EQ(store_.add({"g", "large", noise(5000, 1)}), MD_RC_OK);
  auto match = encode({"g", "large", "other data"}, true);
  std::vector<std::byte> out(match.size());
  for (const unsigned long flags : {WHOLE_KEY | DATA, GROUP | DATA, static_cast<unsigned long>(DATA)}) {
    ASSERT_EQ(store_.Get(flags, match.data(), out.data()), GENREG_RC_NOT_FOUND);
    EXPECT_EQ(out, std::vector<std::byte>(out.size())) << flags;
  }
}

TEST_P(ReadersOfEveryEngine, LeaveZerosBehindTheLongestRecordOfAScan) {
  const Value wanted{"wanted", "k", noise(300, 2)};
  ASSERT_EQ(store_.add({"g", "first", noise(5000, 1)}), MD_RC_OK);
  ASSERT_EQ(store_.add(wanted), MD_RC_OK);
  ASSERT_EQ(store_.add({"wanted", "short", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "last", noise(5000, 3)}), MD_RC_OK);
  auto match = encode({"wanted", "", ""}, true);
  std::vector<std::byte> out(match.size());
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  int delivered = 0;
  while (store_.GetNext(GROUP, match.data(), out.data()) == MD_RC_OK) ++delivered;
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
  EXPECT_EQ(delivered, 2);
  const std::vector<std::byte> behind(out.begin() + static_cast<std::ptrdiff_t>(encode(wanted).size()), out.end());
  EXPECT_EQ(behind, std::vector<std::byte>(behind.size()));
}

TEST_P(ReadersOfEveryEngine, AreNotHeldUpByABatchAndSeeNothingOfIt) {
  fill(20);
  TestStore writer(folder_.path());
  ASSERT_EQ(writer.beginBatch(), MD_RC_OK);
  ASSERT_EQ(writer.add({"g", "pending", "x"}), MD_RC_OK);
  ASSERT_EQ(writer.remove("g3", "k3"), MD_RC_OK);
  store_.setLockWait(0);
  Value value;
  EXPECT_EQ(store_.get("g", "pending", value), GENREG_RC_NOT_FOUND);
  EXPECT_EQ(store_.get("g3", "k3", value), MD_RC_OK);
  EXPECT_EQ(store_.list().size(), 20u);
  EXPECT_EQ(writer.get("g", "pending", value), MD_RC_OK);
  EXPECT_EQ(writer.get("g3", "k3", value), GENREG_RC_NOT_FOUND);
  ASSERT_EQ(writer.commitBatch(), MD_RC_OK);
  EXPECT_EQ(store_.get("g", "pending", value), MD_RC_OK);
  EXPECT_EQ(store_.get("g3", "k3", value), GENREG_RC_NOT_FOUND);
}

TEST_P(ReadersOfEveryEngine, MayAskAnotherQuestionInTheMiddleOfAScan) {
  fill(40, 4);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  auto group = encode({"g2", "", ""}, true);
  auto any = encode({}, true);
  std::vector<std::byte> out(any.size());
  ASSERT_EQ(store_.GetNext(GROUP, group.data(), out.data()), MD_RC_OK);
  EXPECT_EQ(decode(out).key, "k2");
  std::ranges::fill(out, std::byte{0});
  ASSERT_EQ(store_.GetNext(0, any.data(), out.data()), MD_RC_OK);
  EXPECT_EQ(decode(out).key, "k3");
  std::ranges::fill(out, std::byte{0});
  ASSERT_EQ(store_.GetNext(GROUP, group.data(), out.data()), MD_RC_OK);
  EXPECT_EQ(decode(out).key, "k6");
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
}

std::size_t writtenBytes(const std::vector<std::byte>& out) {
  const auto last = std::find_if(out.rbegin(), out.rend(), [](std::byte byte) { return byte != std::byte{0}; });
  return static_cast<std::size_t>(out.rend() - last);
}

// Buffers are cleared for the next user only as far as records were handed out in them.
TEST_P(ReadersOfEveryEngine, LeaveNothingOfOtherRecordsInTheBufferOfAScan) {
  ASSERT_EQ(store_.add({"g", "long", noise(900, 1)}), MD_RC_OK);
  ASSERT_EQ(store_.add({"h", "short", "x"}), MD_RC_OK);
  ASSERT_EQ(store_.add({"i", "last", noise(800, 2)}), MD_RC_OK);
  const std::size_t shortSize = encode({"h", "short", "x"}).size();
  const std::pair<unsigned long, Value> questions[] = {
      {KEY, {"", "short", ""}}, {GROUP, {"h", "", ""}}, {DATA, {"", "", "x"}}};
  for (const auto& [flags, match] : questions) {
    auto key = encode(match, true);
    std::vector<std::byte> out(key.size());
    ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
    ASSERT_EQ(store_.GetNext(flags, key.data(), out.data()), MD_RC_OK);
    EXPECT_LE(writtenBytes(out), shortSize) << flags;
    ASSERT_EQ(store_.GetNext(flags, key.data(), out.data()), GENREG_RC_END_OF_SCAN);
    EXPECT_LE(writtenBytes(out), shortSize) << flags;
    ASSERT_EQ(store_.CloseScan(), MD_RC_OK);
  }
}

TEST_P(ReadersOfEveryEngine, LeaveNothingInTheBufferWhenNoRecordMatches) {
  const SettingScope collide(digestsCollide, true);
  for (int at = 0; at < 20; ++at) ASSERT_EQ(store_.add({"g", numbered("k", at), noise(700, 1)}), MD_RC_OK);
  const std::pair<unsigned long, Value> questions[] = {
      {WHOLE_KEY, {"g", "none", ""}}, {KEY, {"", "none", ""}}, {GROUP, {"none", "", ""}}, {DATA, {"", "", "none"}}};
  for (const auto& [flags, match] : questions) {
    auto key = encode(match, true);
    std::vector<std::byte> out(key.size());
    EXPECT_EQ(store_.Get(flags, key.data(), out.data()), GENREG_RC_NOT_FOUND) << flags;
    EXPECT_EQ(writtenBytes(out), 0u) << flags;
  }
}

TEST_P(ReadersOfEveryEngine, AreToldHowMuchAScanDeliversAtMost) {
  fill(30);
  EXPECT_EQ(store_.scanExtent().records, 0u);
  ASSERT_EQ(store_.OpenScan(), MD_RC_OK);
  EXPECT_EQ(store_.scanExtent().records, 30u);
  EXPECT_GE(store_.scanExtent().bytes, 30u * 100u);
  EXPECT_EQ(store_.CloseScan(), MD_RC_OK);
}

TEST_P(ReadersOfEveryEngine, KeepTheStateInWhichTheirScanBegan) {
  fill(300);
  const Values before = store_.list();
  TestStore reader(folder_.path());
  ASSERT_EQ(reader.OpenScan(), MD_RC_OK);
  auto key = encode({}, true);
  std::vector<std::byte> out(key.size());
  Values seen;
  for (int at = 0; at < 100; ++at) {
    ASSERT_EQ(reader.GetNext(0, key.data(), out.data()), MD_RC_OK);
    seen.push_back(decode(out));
  }
  for (int at = 0; at < 300; at += 2) ASSERT_EQ(store_.change({numbered("g", at % 10), numbered("k", at), "new"}), 0u);
  ASSERT_EQ(store_.removeAll("g3", "", GROUP), MD_RC_OK);
  ASSERT_EQ(store_.compact(), MD_RC_OK);
  for (int at = 0; at < 50; ++at) ASSERT_EQ(store_.add({"later", numbered("k", at), "x"}), MD_RC_OK);
  while (reader.GetNext(0, key.data(), out.data()) == MD_RC_OK) seen.push_back(decode(out));
  EXPECT_EQ(reader.CloseScan(), MD_RC_OK);
  EXPECT_EQ(seen, before);
}

// The index is ahead of them: what it leads to behind their end must be passed by.
TEST_P(ReadersOfEveryEngine, KeepTheirStateInListingsThatTheIndexNarrows) {
  fill(60, 6);
  for (const unsigned long flags : {GROUP, WHOLE_KEY}) {
    const Value match{"g3", "k3", ""};
    const Values before = store_.list(flags, match);
    TestStore reader(folder_.path());
    ASSERT_EQ(reader.OpenScan(), MD_RC_OK);
    for (int at = 0; at < 80; ++at) {
      ASSERT_EQ(store_.change({"g3", "k3", noise(20, static_cast<unsigned>(at))}), MD_RC_OK);
      ASSERT_EQ(store_.add({numbered("more", at), numbered("of", static_cast<int>(flags)), "x"}), MD_RC_OK);
    }
    ASSERT_EQ(store_.add({"g3", numbered("new", static_cast<int>(flags)), "x"}), MD_RC_OK);
    auto key = encode(match, true);
    std::vector<std::byte> out(key.size());
    Values seen;
    while (reader.GetNext(flags, key.data(), out.data()) == MD_RC_OK) seen.push_back(decode(out));
    EXPECT_EQ(reader.CloseScan(), MD_RC_OK);
    EXPECT_EQ(seen, before) << flags;
  }
}

// ---- Order

class ScanOrderOfEveryEngine : public EveryEngine {};
INSTANTIATE_TEST_SUITE_P(Engines, ScanOrderOfEveryEngine, everyEngine(), engineName);

TEST_P(ScanOrderOfEveryEngine, IsThatOfInsertionThroughChangeAndCompaction) {
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
  ASSERT_EQ(store_.add({"g", "last", "x"}), MD_RC_OK);
  expected.push_back({"g", "last", "x"});
  EXPECT_EQ(store_.list(), expected);
}

// ---- The match callback decides

class MatchFlags : public EveryEngine {};
INSTANTIATE_TEST_SUITE_P(Engines, MatchFlags, everyEngine(), engineName);

TEST_P(MatchFlags, WorkInAnyCombination) {
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

TEST_P(MatchFlags, TakeTheFirstOfTheRecordsThatAChangeMadeAlike) {
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

TEST_P(MatchFlags, TakeTheFirstOfTheRecordsThatDifferInMoreThanTheirKey) {
  ASSERT_EQ(store_.add({"g", "k", "first"}, WHOLE_KEY | DATA), MD_RC_OK);
  ASSERT_EQ(store_.add({"g", "k", "second"}, WHOLE_KEY | DATA), MD_RC_OK);
  EXPECT_EQ(store_.add({"g", "k", "second"}, WHOLE_KEY | DATA), GENREG_RC_DUPLICATE_KEY);
  Value value;
  ASSERT_EQ(store_.get("g", "k", value), MD_RC_OK);
  EXPECT_EQ(value.data, "first");
}

TEST_P(MatchFlags, DecideWhatAGroupDeleteTakes) {
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

}  // namespace
}  // namespace zon::test
